// kelmsg_test_peer: a process that the fault and file-transfer tests start
// and steer (see PeerController).
//
//   kelmsg_test_peer APP CONTROLLER [--id ID] [--forward TARGET]
//
// Joins the bus named by KELBUS_URL as APP, with ID (APP unless given) as its
// message identifier, receives files with an engine of its own, tells
// CONTROLLER "ready", and carries out the commands that arrive as raw string
// messages (fields separated by '\n'):
//   push + eight names   pushes a file with SendFile, then answers
//                        "pushed <target file>";
//   ipush + eight names  pushes a file with ISendFile, then answers
//                        "ipushed <target file>";
//   sync                 answers "synced": everything sent before it has been
//                        handled;
//   quit                 leaves the waiting loop; the peer then leaves the bus
//                        and exits normally, so that the leak checker, when
//                        built in, looks at it.
// With --forward, every raw string message is first relayed to TARGET by the
// library's forwarding handler.
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>

#include "TextMessages.h"

namespace {

std::vector<std::string> Fields(const std::string& text) {
  std::istringstream lines(text);
  std::vector<std::string> fields;
  for (std::string field; std::getline(lines, field);)
    fields.push_back(field);
  return fields;
}

// The controller's commands, after relaying them when told to.
class Commands : public KelMsgBBMessageHandler {
 public:
  // `forward`: the application to relay to; "" relays nothing.
  Commands(const KelMsgBBApplication& bus, std::string controller, const std::string& forward,
           KelMsgFileTransfer& files, int& quit)
      : m_bus(bus),
        m_controller(std::move(controller)),
        m_forward(forward.empty()
                      ? nullptr
                      : std::make_unique<KelMsgFwdHandler>(forward.c_str(), bus.Communicator())),
        m_files(files),
        m_quit(quit) {}

  void Reply(const std::string& text) const { SendText(m_bus, m_controller, text); }

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    if (m_forward)
      m_forward->HandleMessage(msg, id);
    const std::vector<std::string> f = Fields(TextOf(msg));
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
  const std::unique_ptr<KelMsgFwdHandler> m_forward;
  KelMsgFileTransfer& m_files;
  int& m_quit;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc % 2 == 0) {
    std::fprintf(stderr, "usage: kelmsg_test_peer APP CONTROLLER [--id ID] [--forward TARGET]\n");
    return 2;
  }
  std::map<std::string, std::string> options{{"--id", argv[1]}, {"--forward", ""}};
  for (int i = 3; i < argc; i += 2)
    options[argv[i]] = argv[i + 1];
  // Made first, the engine outlives the handler that the registry deletes.
  KelMsgFileTransfer files(-1, nullptr, 0);
  const KelMsgBBCallbackManager registry;  // deletes what is adopted below, last
  const KelMsgBBApplication bus(argv[1]);
  if (!bus.Joined())
    return 3;
  KelMsgBBCallbackManager::SetMessageID(options["--id"].c_str());
  files.SetCommunicatorId(bus.Communicator());
  int quit = -1;
  auto* commands = new Commands(bus, argv[2], options["--forward"], files, quit);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, commands);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType,
                                                    new KelMsgFileTransferHandler(&files));
  commands->Reply("ready");
  bus.Wait(quit, -1);
  return 0;
}
