// kelmsg_test_peer: a process that the fault and file-transfer tests start,
// steer and break (see PeerController).
//
//   kelmsg_test_peer APP CONTROLLER [--id ID] [--sleep-us N] [--forward TARGET]
//                    [--mesh INDEX PEERS COUNT FANOUT]
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
//   quit                 leaves the waiting loop; the peer then leaves the bus
//                        and exits normally, so that the leak checker, when
//                        built in, looks at it.
// With --forward, every raw string message is first relayed to TARGET by the
// library's forwarding handler.  Every other message is written to standard
// output as "delivered <type> from <id>" (with ": <text>" for a raw string),
// and every failed check as "report <text>".  --sleep-us N makes every
// message wait N microseconds first: a receiver slower than its senders.
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/DovFatalError.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>

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
  std::string forward;
  int sleepMicroseconds = 0;
  Mesh mesh;
};

Options Parse(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr,
                 "usage: kelmsg_test_peer APP CONTROLLER [--id ID] [--sleep-us N] "
                 "[--forward TARGET] [--mesh INDEX PEERS COUNT FANOUT]\n");
    std::exit(2);
  }
  Options options{argv[1], argv[2], argv[1], "", 0, {}};
  for (int i = 3; i + 1 < argc; ++i) {
    const std::string flag = argv[i];
    if (flag == "--id") {
      options.id = argv[++i];
    } else if (flag == "--forward") {
      options.forward = argv[++i];
    } else if (flag == "--sleep-us") {
      options.sleepMicroseconds = std::atoi(argv[++i]);
    } else if (flag == "--mesh" && i + 4 < argc) {
      options.mesh = {std::atoi(argv[i + 1]), std::atoi(argv[i + 2]), std::atoi(argv[i + 3]),
                      std::atoi(argv[i + 4])};
      i += 4;
    }
  }
  return options;
}

void Print(const std::string& line) {
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void PrintReport(const char* message, const char* /*path*/, int /*line*/) {
  Print(std::string("report ") + message);
}

std::vector<std::string> Fields(const std::string& text) {
  std::istringstream lines(text);
  std::vector<std::string> fields;
  for (std::string field; std::getline(lines, field);)
    fields.push_back(field);
  return fields;
}

long PeakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

class Peer {
 public:
  Peer(const Options& options, const KelMsgBBApplication& bus)
      : m_options(options),
        m_bus(bus),
        m_files(bus.Communicator(), nullptr, 0),
        m_fileHandler(&m_files) {
    if (!options.forward.empty()) {
      m_forward = std::make_unique<KelMsgFwdHandler>(options.forward.c_str(), bus.Communicator());
    }
    for (int offset = 1; offset <= options.mesh.fanout; ++offset)
      m_nextFromSender[MeshName(-offset)] = 0;
  }

  void Handle(const KelMsgBBMessage& msg, const char* id) {
    if (m_options.sleepMicroseconds > 0)
      usleep(static_cast<useconds_t>(m_options.sleepMicroseconds));
    const std::string type = msg.Type();
    if (type == "KelMsgFileTransferType") {
      m_fileHandler.HandleMessage(msg, id);
    } else if (type != "KelMsgStringType") {
      Print("delivered " + type + " from " + id);
    } else {
      if (m_forward)
        m_forward->HandleMessage(msg, id);
      Obey(TextOf(msg), id);
    }
  }

  void Reply(const std::string& text) const { SendText(m_bus, m_options.controller, text); }
  int& Quit() { return m_quit; }

 private:
  void Obey(const std::string& text, const std::string& sender) {
    const std::vector<std::string> f = Fields(text);
    const std::string verb = f.empty() ? "" : f[0];
    if ((verb == "push" || verb == "ipush") && f.size() == 9) {
      const auto push =
          verb == "push" ? &KelMsgFileTransfer::SendFile : &KelMsgFileTransfer::ISendFile;
      (m_files.*push)(f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(), f[5].c_str(),
                      f[6].c_str(), f[7].c_str(), f[8].c_str());
      Reply(verb == "push" ? "pushed " + std::to_string(PeakResidentKiB()) : "ipushed");
    } else if (verb == "sync") {
      Reply("synced");
    } else if (verb == "go") {
      for (int k = 0; k < m_options.mesh.count; ++k) {
        for (int offset = 1; offset <= m_options.mesh.fanout; ++offset)
          SendText(m_bus, MeshName(offset), "seq " + std::to_string(k));
      }
    } else if (verb.rfind("seq ", 0) == 0) {
      CheckMeshMessage(sender, std::atoi(verb.c_str() + 4));
    } else if (verb == "quit") {
      m_quit = 0;
    } else {
      Print("delivered KelMsgStringType from " + sender + ": " + text);
    }
  }

  std::string MeshName(int offset) const {
    const Mesh& mesh = m_options.mesh;
    return "p" + std::to_string(((mesh.index + offset) % mesh.peers + mesh.peers) % mesh.peers);
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
  const KelMsgBBApplication& m_bus;
  KelMsgFileTransfer m_files;
  KelMsgFileTransferHandler m_fileHandler;
  std::unique_ptr<KelMsgFwdHandler> m_forward;
  std::map<std::string, int> m_nextFromSender;
  int m_quit = -1;
};

// What the registry calls for each type: the peer.
class Inlet : public KelMsgBBMessageHandler {
 public:
  explicit Inlet(Peer& peer) : m_peer(peer) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_peer.Handle(msg, id);
  }

 private:
  Peer& m_peer;
};

}  // namespace

int main(int argc, char** argv) {
  const Options options = Parse(argc, argv);
  DovSetFatalErrorSink(&PrintReport);
  const KelMsgBBCallbackManager registry;  // deletes what is adopted below, last
  const KelMsgBBApplication bus(options.application.c_str());
  if (!bus.Joined())
    return 3;
  KelMsgBBCallbackManager::SetMessageID(options.id.c_str());
  Peer peer(options, bus);
  KelMsgBBMessage* prototypes[] = {new KelMsgStringType, new KelMsgFileTransferType,
                                   new KelMsgAnalysisMessageType, new KelMsgProcessControlType};
  for (KelMsgBBMessage* prototype : prototypes)
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, new Inlet(peer));
  peer.Reply("ready");
  bus.Wait(peer.Quit(), -1);
  return 0;
}
