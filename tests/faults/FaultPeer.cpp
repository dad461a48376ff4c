// kelmsg_fault_peer: a process that the fault and file-transfer tests start,
// steer and break.
//
//   kelmsg_fault_peer APP CONTROLLER [--id ID] [--sleep-us N]
//                     [--mesh INDEX PEERS COUNT FANOUT]
//
// Joins the bus named by KELBUS_URL as APP, with ID (APP unless given) as its
// message identifier, receives files with an engine of its own, tells
// CONTROLLER "ready", and carries out the commands that arrive as raw string
// messages (fields separated by '\n'):
//   push + eight names   pushes a file with SendFile, then answers
//                        "pushed <peak resident KiB>";
//   ipush + eight names  pushes a file with ISendFile, then answers "ipushed";
//   sync                 answers "synced": everything sent before it has been
//                        handled;
//   go                   (mesh) sends COUNT messages "seq <k>", k from 0, to
//                        each of the FANOUT peers after INDEX (peers are named
//                        p0 .. p<PEERS-1>, counted round);
//   seq <k>              (mesh) checks that it is the next message of its
//                        sender; once COUNT have come in order from each of
//                        the FANOUT peers before INDEX, answers "ok" and quits;
//                        a message out of place answers "bad <sender> <k>";
//   quit                 leaves the waiting loop.
// The peer then closes its communicator and exits normally, so that the leak
// checker, when built in, looks at it.
//
// Every other message that reaches a handler is written to standard output as
// "delivered <type>" ("delivered <type> <bytes>" for a raw string), and every
// failed check as "report <text>".
// --sleep-us N makes every handler wait N microseconds first: a receiver that
// is slower than its senders.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/DovFatalError.h>
#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include "TextMessages.h"

namespace {

struct Mesh {
  int index = -1;  // -1: not part of a mesh
  int peers = 0;
  int count = 0;
  int fanout = 0;
};

struct Options {
  std::string application;
  std::string controller;
  std::string id;
  int sleepMicroseconds = 0;
  Mesh mesh;
};

Options Parse(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr,
                 "usage: kelmsg_fault_peer APP CONTROLLER [--id ID] [--sleep-us N] "
                 "[--mesh INDEX PEERS COUNT FANOUT]\n");
    std::exit(2);
  }
  Options options{argv[1], argv[2], argv[1], 0, {}};
  for (int i = 3; i < argc; ++i) {
    if (std::strcmp(argv[i], "--id") == 0 && i + 1 < argc) {
      options.id = argv[++i];
    } else if (std::strcmp(argv[i], "--sleep-us") == 0 && i + 1 < argc) {
      options.sleepMicroseconds = std::atoi(argv[++i]);
    } else if (std::strcmp(argv[i], "--mesh") == 0 && i + 4 < argc) {
      options.mesh = {std::atoi(argv[i + 1]), std::atoi(argv[i + 2]), std::atoi(argv[i + 3]),
                      std::atoi(argv[i + 4])};
      i += 4;
    }
  }
  return options;
}

void PrintReport(const char* message, const char* /*path*/, int /*line*/) {
  std::printf("report %s\n", message);
  std::fflush(stdout);
}

long PeakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

std::string MeshName(const Mesh& mesh, int offset) {
  return "p" + std::to_string(((mesh.index + offset) % mesh.peers + mesh.peers) % mesh.peers);
}

// Lets every message wait before the handler it decorates sees it.
class SlowHandler : public KelMsgBBMessageHandler {
 public:
  SlowHandler(KelMsgBBMessageHandler* inner, int microseconds)
      : m_inner(inner), m_microseconds(microseconds) {}
  ~SlowHandler() override { delete m_inner; }
  SlowHandler(const SlowHandler&) = delete;
  SlowHandler& operator=(const SlowHandler&) = delete;

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    if (m_microseconds > 0)
      usleep(static_cast<useconds_t>(m_microseconds));
    m_inner->HandleMessage(msg, id);
  }

 private:
  KelMsgBBMessageHandler* m_inner;
  int m_microseconds;
};

// An analysis message may arrive with an empty document, whose size is not
// to be asked for: only the type is printed.
class DeliveryPrinter : public KelMsgBBMessageHandler {
 public:
  void HandleMessage(const KelMsgBBMessage& msg, const char* /*id*/) override {
    std::printf("delivered %s\n", msg.Type());
    std::fflush(stdout);
  }
};

class Peer : public KelMsgBBMessageHandler {
 public:
  Peer(const Options& options, int communicator, KelMsgFileTransfer* files)
      : m_options(options), m_communicator(communicator), m_files(files) {
    for (int offset = 1; offset <= options.mesh.fanout; ++offset)
      m_nextFromSender[MeshName(options.mesh, -offset)] = 0;
  }

  void Tell(const std::string& target, const std::string& text) const {
    SendText(m_communicator, target, text);
  }
  void Reply(const std::string& text) const { Tell(m_options.controller, text); }

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    std::vector<std::string> fields = TextLines(msg);
    if (fields.empty())
      fields.emplace_back();
    const std::string& verb = fields[0];
    if (verb == "push" && fields.size() == 9) {
      Transfer(fields, &KelMsgFileTransfer::SendFile);
      Reply("pushed " + std::to_string(PeakResidentKiB()));
    } else if (verb == "ipush" && fields.size() == 9) {
      Transfer(fields, &KelMsgFileTransfer::ISendFile);
      Reply("ipushed");
    } else if (verb == "sync") {
      Reply("synced");
    } else if (verb == "go") {
      SendMeshMessages();
    } else if (verb.rfind("seq ", 0) == 0) {
      CheckMeshMessage(id, std::atoi(verb.c_str() + 4));
    } else if (verb == "quit") {
      m_quit = 0;
    } else {
      std::printf("delivered %s %d\n", msg.Type(),
                  static_cast<const KelMsgStringType&>(msg).Size());
      std::fflush(stdout);
    }
  }

  int& Quit() { return m_quit; }

 private:
  void Transfer(const std::vector<std::string>& f,
                decltype(&KelMsgFileTransfer::SendFile) operation) {
    (m_files->*operation)(f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(), f[5].c_str(),
                          f[6].c_str(), f[7].c_str(), f[8].c_str());
  }

  void SendMeshMessages() const {
    for (int k = 0; k < m_options.mesh.count; ++k) {
      for (int offset = 1; offset <= m_options.mesh.fanout; ++offset)
        Tell(MeshName(m_options.mesh, offset), "seq " + std::to_string(k));
    }
  }

  void CheckMeshMessage(const std::string& sender, int k) {
    const auto next = m_nextFromSender.find(sender);
    if (next == m_nextFromSender.end() || next->second != k) {
      Reply("bad " + sender + " " + std::to_string(k));
      m_quit = 0;
      return;
    }
    ++next->second;
    for (const auto& [name, expected] : m_nextFromSender) {
      if (expected != m_options.mesh.count)
        return;
    }
    Reply("ok");
    m_quit = 0;
  }

  const Options& m_options;
  int m_communicator;
  KelMsgFileTransfer* m_files;
  std::map<std::string, int> m_nextFromSender;
  int m_quit = -1;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  DovSetFatalErrorSink(&PrintReport);
  int communicator = -1;
  if (KelMsgBBAPI::RegisterCommunicator(options.application.c_str(), communicator) != KELBUS_OK ||
      KelMsgBBAPI::DeclareApplicationId(communicator, options.application.c_str(), false) !=
          KELBUS_OK) {
    return 3;
  }
  KelMsgFileTransfer files(communicator, nullptr, 0);
  {
    // Deletes every prototype and handler adopted below when the peer ends.
    KelMsgBBCallbackManager registry;
    KelMsgBBCallbackManager::SetMessageID(options.id.c_str());
    const int pause = options.sleepMicroseconds;
    auto* peer = new Peer(options, communicator, &files);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                      new SlowHandler(peer, pause));
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
        new KelMsgFileTransferType, new SlowHandler(new KelMsgFileTransferHandler(&files), pause));
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgAnalysisMessageType,
                                                      new SlowHandler(new DeliveryPrinter, pause));
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgProcessControlType,
                                                      new SlowHandler(new DeliveryPrinter, pause));
    KelMsgBBAPI::EnableReceiveHandling(communicator, options.application.c_str());

    peer->Reply("ready");
    KelMsgBBAPI::WaitingLoop(communicator, -1, peer->Quit());
  }
  CloseCommunicator(communicator);
  return 0;
}
