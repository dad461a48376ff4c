// A process on the bus that a test steers: it joins as APP, serves file
// transfers with an engine of its own, and carries out the commands the test
// sends it as raw string messages, answering "ready" once it listens and
// "done <command>" after each command.
//
//   kelmsg_transfer_peer APP CONTROLLER [--id ID] [--trace LEVEL]
//
// Commands are fields separated by '\n': a transfer verb (push, ipush, pull)
// followed by the eight names of the transfer, "quit", or any other single
// word, which is only answered: the answer shows that everything sent to the
// peer before it has been handled.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include "TextMessages.h"

namespace {

struct Options {
  std::string application;
  std::string controller;
  std::string id;
  int trace = 0;
};

Options Parse(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: kelmsg_transfer_peer APP CONTROLLER [--id ID] [--trace N]\n");
    std::exit(2);
  }
  Options options{argv[1], argv[2], argv[1], 0};
  for (int i = 3; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--id") == 0)
      options.id = argv[i + 1];
    if (std::strcmp(argv[i], "--trace") == 0)
      options.trace = std::atoi(argv[i + 1]);
  }
  return options;
}

class Peer : public KelMsgBBMessageHandler {
 public:
  Peer(const Options& options, int communicator, KelMsgFileTransfer* files)
      : m_options(options), m_communicator(communicator), m_files(files) {}

  void Reply(const std::string& text) const {
    SendText(m_communicator, m_options.controller, text);
  }

  void HandleMessage(const KelMsgBBMessage& msg, const char* /*id*/) override {
    const std::vector<std::string> fields = TextLines(msg);
    if (fields.empty())
      return;
    const std::string& verb = fields[0];
    if (verb == "quit") {
      m_quit = 0;
      return;
    }
    if (fields.size() != 9) {
      Reply("done " + verb);
      return;
    }
    const char* n[8];
    for (int i = 0; i < 8; ++i)
      n[i] = fields[static_cast<std::size_t>(i) + 1].c_str();
    if (verb == "push")
      m_files->SendFile(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]);
    if (verb == "ipush")
      m_files->ISendFile(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]);
    if (verb == "pull")
      m_files->ReceiveFile(n[0], n[1], n[2], n[3], n[4], n[5], n[6], n[7]);
    Reply("done " + verb);
  }

  int& Quit() { return m_quit; }

 private:
  const Options& m_options;
  int m_communicator;
  KelMsgFileTransfer* m_files;
  int m_quit = -1;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  int communicator = -1;
  if (KelMsgBBAPI::RegisterCommunicator(options.application.c_str(), communicator) != 0 ||
      KelMsgBBAPI::DeclareApplicationId(communicator, options.application.c_str(), false) != 0) {
    return 3;
  }
  KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::SetMessageID(options.id.c_str());
  KelMsgFileTransfer files(communicator, stdout, options.trace);
  auto* peer = new Peer(options, communicator, &files);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgFileTransferType,
                                                    new KelMsgFileTransferHandler(&files));
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, peer);
  KelMsgBBAPI::EnableReceiveHandling(communicator, options.application.c_str());

  peer->Reply("ready");
  KelMsgBBAPI::WaitingLoop(communicator, -1, peer->Quit());
  std::fflush(stdout);
  CloseCommunicator(communicator);
  return 0;
}
