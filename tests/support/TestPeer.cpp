// kelmsg_test_peer: a process that the file-transfer tests start and steer
// (see PeerController).
//
//   kelmsg_test_peer APP CONTROLLER [--id ID | --confine DIR]
//
// Joins the bus named by KELBUS_URL as APP, with ID (APP unless given) as its
// message identifier, receives files with an engine of its own (working in
// DIR and confined to it, closing files left idle for 1 s, when given), tells
// CONTROLLER "ready", and carries
// out the commands that arrive as raw string messages (fields separated by
// '\n'):
//   push + eight names   pushes a file with SendFile, then answers
//                        "pushed <target file>";
//   ipush + eight names  pushes a file with ISendFile, then answers
//                        "ipushed <target file>";
//   sync                 answers "synced": everything sent before it has been
//                        handled;
//   quit                 leaves the waiting loop; the peer then leaves the bus
//                        and exits normally, so that the leak checker, when
//                        built in, looks at it.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include "TextMessages.h"

namespace {

class Commands : public KelMsgBBMessageHandler {
 public:
  Commands(const KelMsgBBApplication& bus, const char* controller, KelMsgFileTransfer& files)
      : m_bus(bus), m_controller(controller), m_files(files) {}

  void Reply(const std::string& text) const { SendText(m_bus, m_controller, text); }
  int& Quit() { return m_quit; }

  void HandleMessage(const KelMsgBBMessage& msg, const char* /*id*/) override {
    std::istringstream lines(TextOf(msg));
    std::vector<std::string> f;
    for (std::string field; std::getline(lines, field);)
      f.push_back(field);
    const std::string verb = f.empty() ? "" : f[0];
    if ((verb == "push" || verb == "ipush") && f.size() == 9) {
      const auto push =
          verb == "push" ? &KelMsgFileTransfer::SendFile : &KelMsgFileTransfer::ISendFile;
      (m_files.*push)(f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(), f[5].c_str(),
                      f[6].c_str(), f[7].c_str(), f[8].c_str());
      Reply(verb + "ed " + f[8]);
    } else if (verb == "sync") {
      Reply("synced");
    } else if (verb == "quit") {
      m_quit = 0;
    }
  }

 private:
  const KelMsgBBApplication& m_bus;
  const std::string m_controller;
  KelMsgFileTransfer& m_files;
  int m_quit = -1;
};

}  // namespace

int main(int argc, char** argv) {
  const bool withId = argc == 5 && std::strcmp(argv[3], "--id") == 0;
  const bool confined = argc == 5 && std::strcmp(argv[3], "--confine") == 0;
  if (argc != 3 && !withId && !confined) {
    std::fprintf(stderr, "usage: kelmsg_test_peer APP CONTROLLER [--id ID | --confine DIR]\n");
    return 2;
  }
  // Made first, the engine outlives the handler that the registry deletes.
  KelMsgFileTransfer files(-1, nullptr, 0);
  if (confined && (chdir(argv[4]) != 0 || files.ConfineTo(argv[4]) != 0))
    return 4;
  if (confined)
    files.SetReceiveLimits(KelMsgFileTransfer::kDefaultMaxReceiveFiles, 1);
  const KelMsgBBCallbackManager registry;  // deletes what is adopted below, last
  const KelMsgBBApplication bus(argv[1]);
  if (!bus.Joined())
    return 3;
  files.SetCommunicatorId(bus.Communicator());
  auto* commands = new Commands(bus, argv[2], files);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, commands);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType,
                                                    new KelMsgFileTransferHandler(&files));
  commands->Reply("ready");
  // Ready under its own identifier; from now on it claims another.
  if (withId)
    KelMsgBBCallbackManager::SetMessageID(argv[4]);
  bus.Wait(commands->Quit(), -1);
  return 0;
}
