// Faults on purpose, with real processes on a real broker: a sender killed
// in the middle of a push, the broker killed and restarted under connected
// processes, pushes and pulls that ride out a stopped receiver, a killed
// broker, a broker stopped cleanly and a cut connection, a push into a full
// file system, a receiver slower than its sender, fifty processes at once, a
// plain MQTT client (mosquitto_pub) that publishes garbage to an
// application, asks for more statements than a server keeps, and a message
// relayed across three processes.
//
// The processes are the kelmsg tool, as users run it, and for the relay,
// which kelmsg lacks, this test itself.
#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>
#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "TcpRelay.h"
#include "TestBroker.h"
#include "TestFiles.h"
#include "TextMessages.h"

namespace {

constexpr std::uint64_t kMiB = 1024 * 1024;

// A file of whole MiB whose every 8-byte word holds its own offset, so that
// a chunk lost, doubled or moved shows; written a MiB at a time, so that no
// file needs to fit in this process's memory.
void WritePatternFile(const std::string& path, std::uint64_t mebibytes) {
  std::ofstream file(path, std::ios::binary);
  std::vector<std::uint64_t> words(kMiB / sizeof(std::uint64_t));
  for (std::uint64_t offset = 0; offset < mebibytes * kMiB; offset += kMiB) {
    for (std::size_t i = 0; i < words.size(); ++i)
      words[i] = offset + i * sizeof(std::uint64_t);
    file.write(reinterpret_cast<const char*>(words.data()), kMiB);
  }
}

// Compared by cmp, for the same reason.
bool SameContents(const std::string& a, const std::string& b) {
  return std::system(("cmp -s '" + a + "' '" + b + "'").c_str()) == 0;
}

// The peak resident size of a process, in KiB; 0 once it has ended.
long PeakResidentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  long kib = 0;
  for (std::string field; status >> field && field != "VmHWM:";) {
  }
  status >> kib;
  return kib;
}

// The state letter of a process: R, S, T when stopped...
char ProcessState(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  const std::string line{std::istreambuf_iterator<char>(stat), {}};
  const std::size_t end = line.rfind(") ");
  return end != std::string::npos && end + 2 < line.size() ? line[end + 2] : '?';
}

class KelMsgFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
  }

  std::string Path(const std::string& name) const { return m_scratch / name; }
  // kelmsg in the scratch directory.
  std::unique_ptr<KelmsgProcess> Start(const std::vector<std::string>& arguments) const {
    return std::make_unique<KelmsgProcess>(arguments, m_scratch.Path());
  }
  std::unique_ptr<KelmsgProcess> Serve(const std::string& application) const {
    auto server = Start({"serve", application});
    EXPECT_TRUE(server->WaitForOutput("serving files as " + application)) << server->Err();
    return server;
  }
  // Stops a process as a user does; it must leave cleanly, having reported
  // nothing.
  static void Stop(KelmsgProcess& process) {
    process.Signal(SIGTERM);
    EXPECT_EQ(process.ExitCode(), 0);
    EXPECT_EQ(process.Err(), "");
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

// The receiver notices the killed sender's departure, removes its partial
// file and says so, and takes the next sender's file whole.
TEST_F(KelMsgFaultTest, SenderKilledInAPushLeavesTheReceiverServingTheNextSender) {
  WritePatternFile(Path("big.dat"), 128);
  WriteFile(Path("small.dat"), RandomBytes(3 * kMiB + 5));
  const auto receiver = Serve("receiver");
  const auto sender1 = Start({"push", "receiver", "big.dat", "big.out", "--as", "sender1"});
  KelmsgProcess watch({"watch", "sender1"});
  ASSERT_TRUE(watch.WaitForOutput("watching sender1\n")) << watch.Err();
  ASSERT_TRUE(receiver->WaitForOutput("updating chunkId 64 for source Application sender1\n"));
  sender1->Signal(SIGKILL);
  EXPECT_EQ(watch.ExitCode(1s), 0) << "the watcher learned too late";
  EXPECT_EQ(watch.Out(), "watching sender1\nsender1 has left the bus\n");
  // A push that ended before the kill would be reported as received.
  EXPECT_TRUE(receiver->WaitForOutput(
      "could not receive from sender1: sender1 left the bus while sending big.dat ("));
  EXPECT_TRUE(receiver->WaitForOutput(" bytes received); removed big.out.partial\n"))
      << receiver->Out();
  EXPECT_FALSE(std::filesystem::exists(Path("big.out")));

  EXPECT_EQ(Start({"push", "receiver", "small.dat", "small.out"})->ExitCode(), 0);
  EXPECT_TRUE(SameContents(Path("small.dat"), Path("small.out")));
  Stop(*receiver);
}

// A fault in the middle of a transfer that the transfer must ride out, with
// the file arriving whole and nothing left beside it.
enum class Fault {
  kReceiverStopped,    // longer than the keepalive, so that the broker drops it
  kBrokerKilled,       // and started again on its port: what came since it saved is lost
  kBrokerKilledEmpty,  // and started without what it saved, as without persistence
  kServerCut,          // only the server's connection, for a second
  kBrokerStopped,      // cleanly (SIGTERM) and started again: it publishes every will
};
struct Interruption {
  const char* command;  // push or pull
  Fault fault;
};

class KelMsgInterruptedTransferTest : public KelMsgFaultTest,
                                      public ::testing::WithParamInterface<Interruption> {};

std::string RowName(const ::testing::TestParamInfo<Interruption>& row) {
  const char* faults[] = {"ReceiverStopped", "BrokerKilled", "BrokerKilledEmpty", "ServerCut",
                          "BrokerStopped"};
  return row.param.command + std::string(faults[static_cast<int>(row.param.fault)]);
}

INSTANTIATE_TEST_SUITE_P(Faults, KelMsgInterruptedTransferTest,
                         ::testing::Values(Interruption{"push", Fault::kReceiverStopped},
                                           Interruption{"pull", Fault::kReceiverStopped},
                                           Interruption{"push", Fault::kBrokerKilled},
                                           Interruption{"pull", Fault::kBrokerKilled},
                                           Interruption{"push", Fault::kBrokerKilledEmpty},
                                           Interruption{"pull", Fault::kBrokerKilledEmpty},
                                           Interruption{"push", Fault::kServerCut},
                                           Interruption{"pull", Fault::kServerCut},
                                           Interruption{"push", Fault::kBrokerStopped},
                                           Interruption{"pull", Fault::kBrokerStopped}),
                         RowName);

// The shortest keepalive the bus takes, so that a stop of 12 s outlasts the
// broker's patience of 1.5 keepalives; the departure delay outlasts every
// fault, which would otherwise count as the peer's death.  Only the server
// reaches the broker through the relay.
TEST_P(KelMsgInterruptedTransferTest, TheFileArrivesWhole) {
  const auto [command, fault] = GetParam();
  const bool push = std::string(command) == "push";
  setenv("KELBUS_KEEPALIVE_SECONDS", "5", 1);
  setenv("KELBUS_DEPARTURE_DELAY_SECONDS", "30", 1);
  WritePatternFile(Path("source.dat"), 32);
  TcpRelay relay(m_broker.Port());
  if (fault == Fault::kServerCut)
    setenv("KELBUS_URL", ("mqtt://127.0.0.1:" + std::to_string(relay.Port())).c_str(), 1);
  const auto server = Serve("server");
  setenv("KELBUS_URL", m_broker.Url().c_str(), 1);
  const auto client = Start({command, "server", "source.dat", "target.dat"});
  KelmsgProcess& receiver = push ? *server : *client;

  // Under way: a quarter of the file written.
  const std::string partial = Path("target.dat.partial");
  for (const auto start = std::chrono::steady_clock::now();
       std::chrono::steady_clock::now() - start < 20s;) {
    std::error_code absent;
    if (std::filesystem::file_size(partial, absent) >= 8 * kMiB && !absent)
      break;
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_GE(std::filesystem::file_size(partial), 8 * kMiB);
  switch (fault) {
    case Fault::kReceiverStopped:
      receiver.Signal(SIGSTOP);
      std::this_thread::sleep_for(12s);
      receiver.Signal(SIGCONT);
      break;
    case Fault::kBrokerKilled:
    case Fault::kBrokerKilledEmpty:
      m_broker.Kill();
      ASSERT_TRUE(m_broker.Restart(fault == Fault::kBrokerKilled)) << m_broker.Error();
      break;
    case Fault::kServerCut:
      relay.Cut(1s);
      break;
    case Fault::kBrokerStopped:
      ASSERT_TRUE(m_broker.Stop(5s)) << m_broker.Log();
      ASSERT_TRUE(m_broker.Restart()) << m_broker.Error();
      break;
  }
  EXPECT_EQ(client->ExitCode(60s), 0) << client->Err() << server->Out();
  EXPECT_TRUE(SameContents(Path("source.dat"), Path("target.dat")));
  EXPECT_FALSE(std::filesystem::exists(partial));
  // The bus has said on standard error what it rode out.
  server->Signal(SIGTERM);
  EXPECT_EQ(server->ExitCode(), 0);
}

// A push into a file system that fills up fails with the cause and the
// counts, and leaves nothing under the file's name.
TEST_F(KelMsgFaultTest, APushIntoAFullFileSystemFailsSayingSo) {
  WriteFile(Path("big.dat"), RandomBytes(3 * kMiB));
  std::filesystem::create_directory(Path("small"));
  KelmsgProcess server({"serve", "small"}, Path("small"),
                       KelmsgProcess::OnTmpfs(Path("small"), kMiB));
  if (!server.WaitForOutput("serving files as small")) {
    GTEST_SKIP() << "no tmpfs in a mount namespace here: " << server.Out();
  }
  KelmsgProcess push({"push", "small", "big.dat", "big.out"}, m_scratch.Path());
  EXPECT_EQ(push.ExitCode(), 1);
  EXPECT_EQ(
      push.Err().find("kelmsg push: small could not write big.out: No space left on device ("), 0U)
      << push.Err();
  EXPECT_TRUE(push.Err().ends_with(" of 3145728 bytes)\n")) << push.Err();
  EXPECT_TRUE(server.WaitForOutput(" of 3145728 bytes); removed big.out.partial\n"))
      << server.Out();
  // The server's file system is its own.
  const std::string seen = "/proc/" + std::to_string(server.Pid()) + "/root" + Path("small");
  ASSERT_TRUE(std::filesystem::exists(seen));
  EXPECT_FALSE(std::filesystem::exists(seen + "/big.out"));
  EXPECT_FALSE(std::filesystem::exists(seen + "/big.out.partial"));
  Stop(server);
}

// The server must take requests and send again, and the watcher still learn
// of departures.
TEST_F(KelMsgFaultTest, BrokerRestartedUnderTwoConnectedProcessesBothResume) {
  WriteFile(Path("model.inp"), "*NODE\n");
  const auto server = Serve("files");
  KelmsgProcess watch({"watch", "files"});
  ASSERT_TRUE(watch.WaitForOutput("watching files\n")) << watch.Err();
  m_broker.Kill();
  ASSERT_TRUE(m_broker.Restart()) << m_broker.Error();

  // A request that reaches the broker before the server is back is lost:
  // ask again until one goes round.
  bool pulled = false;
  for (const auto restarted = std::chrono::steady_clock::now();
       !pulled && std::chrono::steady_clock::now() - restarted < 40s;) {
    pulled = Start({"pull", "files", "model.inp", "copy.inp", "--timeout", "1"})->ExitCode() == 0;
  }
  EXPECT_TRUE(pulled) << m_broker.Log();
  EXPECT_EQ(ReadFile(Path("copy.inp")), "*NODE\n");
  server->Signal(SIGTERM);
  EXPECT_EQ(server->ExitCode(), 0);
  EXPECT_EQ(watch.ExitCode(20s), 0) << watch.Err();
}

// The receiver runs a fifth of the time.  Meanwhile the sender's peak
// resident size may grow beyond the footprint of the same program idle (the
// receiver's) by less than an eighth of what it pushes: about 6 MiB measured
// without sanitizers, 17 MiB with them, on a footprint of 47 MiB.
TEST_F(KelMsgFaultTest, SlowReceiverLosesNothingAndTheSendersMemoryStaysBounded) {
  WritePatternFile(Path("large.dat"), 256);
  const auto receiver = Serve("receiver");
  const long footprintKiB = PeakResidentKiB(receiver->Pid());
  // AddressSanitizer keeps freed memory in quarantine, 256 MiB of it by
  // default, which would count against the limit; a small quarantine keeps
  // the figure about the sender's own memory.  Without the sanitizer the
  // variable means nothing; nothing started later minds it.
  const char* asan = std::getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS",
         (std::string(asan != nullptr ? asan : "") + ":quarantine_size_mb=8").c_str(), 1);
  const auto sender = Start({"push", "receiver", "large.dat", "large.out"});

  long peakKiB = 0;
  for (const auto start = std::chrono::steady_clock::now();
       sender->Running() && std::chrono::steady_clock::now() - start < 120s;) {
    peakKiB = std::max(peakKiB, PeakResidentKiB(sender->Pid()));
    receiver->Signal(SIGSTOP);
    std::this_thread::sleep_for(40ms);
    receiver->Signal(SIGCONT);
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_EQ(sender->ExitCode(), 0) << sender->Err();
  RecordProperty("sender_growth_kib", static_cast<int>(peakKiB - footprintKiB));
  EXPECT_LT(peakKiB - footprintKiB, 32 * 1024) << "KiB over the footprint of " << footprintKiB;
  EXPECT_TRUE(SameContents(Path("large.dat"), Path("large.out")));
  Stop(*receiver);
}

// Ten servers, each taking four files at once: every chunk must reach the
// right file once and in place.
TEST_F(KelMsgFaultTest, FiftyProcessesMoveEveryFileWhole) {
  constexpr int kServers = 10;
  constexpr int kSenders = 40;
  std::vector<std::unique_ptr<KelmsgProcess>> servers;
  for (int i = 0; i < kServers; ++i)
    servers.push_back(Serve("server" + std::to_string(i)));
  std::vector<std::unique_ptr<KelmsgProcess>> senders;
  for (int i = 0; i < kSenders; ++i) {
    const std::string file = "f" + std::to_string(i);
    WriteFile(Path(file), RandomBytes(3 * 65536 + i));
    senders.push_back(
        Start({"push", "server" + std::to_string(i % kServers), file, file + ".copy"}));
  }
  for (int i = 0; i < kSenders; ++i) {
    const std::string file = "f" + std::to_string(i);
    EXPECT_EQ(senders[i]->ExitCode(60s), 0) << file << ": " << senders[i]->Err();
    EXPECT_EQ(ReadFile(Path(file + ".copy")), ReadFile(Path(file))) << file;
  }
  for (const auto& server : servers)
    Stop(*server);
}

std::string Int32(std::int32_t value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

// An envelope with the identifier "raw" around `payload`.
std::string Envelope(const std::string& payload) {
  return Int32(3) + "raw" + payload;
}

// One of each refusal on the receiving path, as (type, payload, report): the
// envelope's checks are the same for every type, and each type's own are the
// unit tests'.  The listener stays up through all of them and takes the two
// messages that follow.
TEST_F(KelMsgFaultTest, ForeignClientsGarbageIsRefusedWithAReportAndTheReceiverStaysUp) {
  // A chunk record with eight empty names that claims more bytes than follow.
  const std::string chunkPastEnd =
      Int32(3) + std::string(32, '\0') + Int32(1) + Int32(1000) + "abc";
  const std::string garbage[][3] = {
      {"KelMsgStringType", "", "size >= 4"},
      {"KelMsgFileTransferType", Int32(0x40000000) + "abcd", "n >= 0 && n <= size - 4"},
      {"KelMsgAnalysisMessageType", Envelope(Int32(-5) + "<a/>"), "byteCount >= 0"},
      {"KelMsgProcessControlType", Envelope(Int32(1000) + "<Kill/>"), "byteCount <= bytesLeft"},
      {"KelMsgFileTransferType", Envelope(chunkPastEnd), "byteCount <= bytesLeft"},
      {"KelMsgNoSuchType", Envelope("anything"), "m_protos.IsMember(type)"},
      {"KelMsgStringType", Envelope("hello"), ""},
      {"KelMsgAnalysisMessageType", Envelope(Int32(0)), ""}};
  KelmsgProcess collector({"listen", "collector", "--count", "2"});
  ASSERT_TRUE(collector.WaitForOutput("listening as collector\n")) << collector.Err();
  for (const auto& [type, payload, report] : garbage) {
    WriteFile(Path("payload"), payload);
    ChildProcess publisher = ChildProcess::Exec(
        {KELMSG_MOSQUITTO_PUB, "-h", "127.0.0.1", "-p", std::to_string(m_broker.Port()), "-V",
         "mqttv5", "-q", "1", "-t", "kelbus/a/collector", "-D", "publish", "content-type", type,
         "-f", Path("payload")});
    ASSERT_EQ(publisher.ExitCode(10s), 0) << type;
  }
  // A normal exit: with the leak checker built in, a leak fails it.
  EXPECT_EQ(collector.ExitCode(20s), 0);
  const std::string err = collector.Err();
  EXPECT_EQ(std::ranges::count(err, '\n'), 6) << err;
  for (const auto& [type, payload, report] : garbage) {
    EXPECT_TRUE(report.empty() || err.find("AssertionFailed:" + report + " -- ") != err.npos)
        << report;
  }
  const std::string out = collector.Out();
  EXPECT_NE(out.find("-- id raw\nMessage Type: KelMsgStringType\n   size: 5\n"), out.npos) << out;
  EXPECT_NE(out.find("-- id raw\nAnalysis Message"), out.npos) << out;
}

// Asks for statements that no request follows, each under another puller's
// name, from one more puller than a server owes statements to at once: that
// one is refused in one line, and the server serves on.
TEST_F(KelMsgFaultTest, AServerOwesStatementsToABoundedNumberOfPullers) {
  const auto server = Serve("server");
  const KelMsgBBCallbackManager registry;
  // A communicator without an application: nobody vouches for its
  // messages, so each may claim a puller of its own.
  int asker = 0;
  ASSERT_EQ(KelMsgBBAPI::RegisterCommunicator("asker", asker), KELBUS_OK);
  const KelMsgTransferReceiptType ask;
  for (int puller = 0; puller <= 256; ++puller) {
    KelMsgBBCallbackManager::SetMessageID(("puller" + std::to_string(puller)).c_str());
    ASSERT_EQ(KelMsgBBAPI::SendRequest(asker, "server", ask), KELBUS_OK);
  }
  CloseCommunicator(asker);
  EXPECT_TRUE(server->WaitForOutput(
      "refused to state what is sent to puller256: 256 pullers await a statement already\n"))
      << server->Out();
  EXPECT_EQ(std::ranges::count(server->Out(), '\n'), 2) << server->Out();
  Stop(*server);
}

// origin -> relay (this process) -> sink: the relay's forwarding handler
// passes the message on under the relay's own identifier.
TEST_F(KelMsgFaultTest, MessagesRelayedAcrossThreeProcessesArriveUnderTheRelaysName) {
  KelmsgProcess sink({"listen", "sink", "--count", "1"});
  ASSERT_TRUE(sink.WaitForOutput("listening as sink\n")) << sink.Err();
  const KelMsgBBCallbackManager registry;  // deletes the adopted, after the relay has left
  const KelMsgBBApplication relay("relay");
  ASSERT_TRUE(relay.Joined());
  KelMsgBBCallbackManager::SetMessageID("relay");
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
      new KelMsgStringType, new KelMsgFwdHandler("sink", relay.Communicator()));
  ASSERT_EQ(KelmsgProcess({"send", "relay", "--as", "origin", "--text", "mesh ready"}).ExitCode(),
            0);
  int unchanged = -1;  // the relay dispatches while the sink waits
  for (int slice = 0; slice < 200 && sink.Running(); ++slice)
    relay.Wait(unchanged, 100);
  EXPECT_EQ(sink.ExitCode(), 0);
  EXPECT_NE(sink.Out().find("-- id relay\nMessage Type: KelMsgStringType\n   size: 10\n"
                            "   data[0]: m\n   data[9]: y\n"),
            std::string::npos)
      << sink.Out();
}

// While the receiver is stopped, a broker whose queue for it holds two
// messages drops what comes next, at times the last message too, and every
// connection stays up.  Seeing the gap when a later message or the sender's
// probe comes, the receiver asks its sender for the rest and gets it, long
// before it would give the gap up for lost (20 s).
// Message i is i + 1 bytes long, so its size line tells it.
TEST(KelMsgBrokerDropTest, WhatTheBrokerDroppedIsSentAgainWhenTheReceiverAsks) {
  TestBroker broker(TestBroker::Security::kNone, {"max_queued_messages 2", "log_type error",
                                                  "log_type warning", "log_type notice"});
  ASSERT_TRUE(broker.Running()) << broker.Error();
  broker.ExportUrl();
  constexpr int kMessages = 40;
  KelmsgProcess inbox({"listen", "inbox", "--count", std::to_string(kMessages)});
  ASSERT_TRUE(inbox.WaitForOutput("listening as inbox\n")) << inbox.Err();
  const KelMsgBBCallbackManager registry;
  const KelMsgBBApplication sender("sender");
  ASSERT_TRUE(sender.Joined());
  KelMsgBBCallbackManager::SetMessageID("sender");
  inbox.Signal(SIGSTOP);
  for (int tries = 0; tries < 100 && ProcessState(inbox.Pid()) != 'T'; ++tries)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(ProcessState(inbox.Pid()), 'T');
  for (int i = 0; i + 1 < kMessages; ++i)
    ASSERT_EQ(SendText(sender, "inbox", std::string(std::size_t(i) + 1, 'x')), KELBUS_OK);
  int unchanged = -1;
  for (int slice = 0; slice < 50 && broker.Log().find("being dropped") == std::string::npos;
       ++slice)
    sender.Wait(unchanged, 100);
  ASSERT_NE(broker.Log().find("being dropped"), std::string::npos) << broker.Log();
  inbox.Signal(SIGCONT);
  ASSERT_EQ(SendText(sender, "inbox", std::string(kMessages, 'x')), KELBUS_OK);
  for (int slice = 0; slice < 150 && inbox.Running(); ++slice)
    sender.Wait(unchanged, 100);
  ASSERT_EQ(inbox.ExitCode(1s), 0) << inbox.Err() << inbox.Out();
  const std::string out = inbox.Out();
  std::size_t at = 0;
  for (int size = 1; size <= kMessages; ++size) {
    at = out.find("   size: " + std::to_string(size) + "\n", at);
    ASSERT_NE(at, std::string::npos) << "message " << size - 1 << " missing or late:\n" << out;
  }
}

}  // namespace
