// Faults on purpose, with real processes on a real broker: a sender killed
// in the middle of a push, the broker killed and restarted under connected
// processes, a receiver slower than its sender, fifty processes at once, a
// plain MQTT client (mosquitto_pub) that publishes garbage to an
// application, and a message relayed across three processes.
//
// The processes are kelmsg_test_peer programs (tests/support/TestPeer.cpp)
// that this process steers through the bus as their controller.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>
#include <gtest/gtest.h>

#include "PeerController.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr char kNameSpace[] = "faults";
constexpr std::uintmax_t kMiB = 1024 * 1024;

// A file whose every 8-byte word holds its own offset, so that a chunk lost,
// doubled or moved shows in a comparison.
void WritePatternFile(const std::string& path, std::uintmax_t size) {
  std::ofstream file(path, std::ios::binary);
  std::vector<std::uint64_t> words(kMiB / sizeof(std::uint64_t));
  for (std::uintmax_t offset = 0; offset < size; offset += kMiB) {
    for (std::size_t i = 0; i < words.size(); ++i)
      words[i] = offset + i * sizeof(std::uint64_t);
    file.write(reinterpret_cast<const char*>(words.data()),
               static_cast<std::streamsize>(std::min<std::uintmax_t>(kMiB, size - offset)));
  }
}

// Compared by cmp, so that no file needs to fit in this process's memory.
bool SameContents(const std::string& a, const std::string& b) {
  return std::system(("cmp -s '" + a + "' '" + b + "'").c_str()) == 0;
}

std::uintmax_t SizeOrZero(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

class KelMsgFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl(kNameSpace);
    ASSERT_TRUE(m_controller.emplace().Bus().Joined());
  }

  std::string Path(const std::string& name) const { return m_scratch / name; }
  // A peer whose output goes to <name>.out.
  ChildProcess Start(const std::string& name, std::vector<std::string> options = {}) {
    options.insert(options.begin(), name);
    return m_controller->StartPeer(options, Path(name + ".out"));
  }
  // The command to push the scratch directory's `file` from `sender` to
  // `receiver`'s `target`.
  std::string Push(const std::string& sender, const std::string& file, const std::string& receiver,
                   const std::string& target) const {
    const std::string base = m_scratch.Path();
    return "push\n" + sender + "\n" + base + "\n\n" + file + "\n" + receiver + "\n" + base +
           "\n\n" + target;
  }
  // Awaits "ready" from each peer named.
  bool Ready(const std::vector<std::string>& peers) {
    return std::all_of(peers.begin(), peers.end(), [&](const std::string& peer) {
      return m_controller->TakeAnswer(peer, "ready", 60s).has_value();
    });
  }
  void Quit(const std::string& peer, ChildProcess& process) {
    m_controller->Tell(peer, "quit");
    EXPECT_EQ(process.ExitCode(20s), 0) << peer;
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
  std::optional<PeerController> m_controller;
};

// The receiver still holds the killed sender's file open while it takes the
// next sender's, so the two sources' descriptors and chunk counters must
// stay apart.
TEST_F(KelMsgFaultTest, SenderKilledInAPushLeavesTheReceiverServingTheNextSender) {
  const std::uintmax_t bigSize = 128 * kMiB;
  WritePatternFile(Path("big.dat"), bigSize);
  WritePatternFile(Path("small.dat"), 3 * kMiB + 5);
  KelMsgSimpleDisconnectHandler watcher;
  watcher.SetWatchApplication("sender1", 0, nullptr);
  watcher.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  ASSERT_EQ(m_controller->Bus().WatchDepartures(watcher), KELBUS_OK);

  ChildProcess receiver = Start("receiver");
  ChildProcess sender1 = Start("sender1");
  ChildProcess sender2 = Start("sender2");
  ASSERT_TRUE(Ready({"receiver", "sender1", "sender2"}));

  const std::string partial = Path("big.out");
  ASSERT_EQ(m_controller->Tell("sender1", Push("sender1", "big.dat", "receiver", "big.out")),
            KELBUS_OK);
  for (int wait = 0; wait < 6000 && SizeOrZero(partial) < 4 * kMiB; ++wait)
    std::this_thread::sleep_for(5ms);
  ASSERT_GE(SizeOrZero(partial), 4 * kMiB);
  ASSERT_LT(SizeOrZero(partial), bigSize) << "the push ended before the sender could be killed";

  const auto killed = std::chrono::steady_clock::now();
  sender1.Kill();
  EXPECT_EQ(m_controller->Bus().Wait(watcher.EndingCondition(), 1000), KELBUS_OK);
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 1s) << "the watcher learned too late";
  KelMsgBBCallbackManager::AssociateDisconnectHandler(nullptr);

  m_controller->Tell("sender2", Push("sender2", "small.dat", "receiver", "small.out"));
  ASSERT_TRUE(m_controller->TakeAnswer("sender2", "pushed ", 30s));
  EXPECT_TRUE(SameContents(Path("small.dat"), Path("small.out")));
  EXPECT_LT(SizeOrZero(partial), bigSize);
  Quit("receiver", receiver);
  Quit("sender2", sender2);
  EXPECT_EQ(ReadFile(Path("receiver.out")), "") << "the receiver reported or received something";
}

TEST_F(KelMsgFaultTest, BrokerRestartedUnderTwoConnectedProcessesBothResume) {
  ChildProcess echo = Start("echo");
  ASSERT_TRUE(m_controller->TakeAnswer("echo", "ready", 30s));
  m_broker.Kill();
  ASSERT_TRUE(m_broker.Restart()) << m_broker.Error();

  // Sends are refused while this process's connection is down, and a request
  // that reaches the broker before the peer is back is lost: ask again until
  // one goes round.
  bool answered = false;
  for (const auto restarted = std::chrono::steady_clock::now();
       !answered && std::chrono::steady_clock::now() - restarted < 40s;) {
    m_controller->Tell("echo", "sync");
    answered = m_controller->TakeAnswer("echo", "synced", 250ms).has_value();
  }
  EXPECT_TRUE(answered) << m_broker.Log();
  Quit("echo", echo);
}

TEST_F(KelMsgFaultTest, SlowReceiverLosesNothingAndTheSendersMemoryStaysBounded) {
  // The sender's peak resident size stays under a quarter of what it pushes
  // (about 12 MiB measured without sanitizers, 36 MiB with them).
  const long limitKiB = 64 * 1024;
  WritePatternFile(Path("large.dat"), 256 * kMiB);
  ChildProcess receiver = Start("receiver", {"--sleep-us", "1000"});
  // AddressSanitizer keeps freed memory in quarantine, 256 MiB of it by
  // default, which would count against the limit; a small quarantine keeps
  // the figure about the sender's own memory.  Without the sanitizer the
  // variable means nothing.
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string previous = asan != nullptr ? asan : "";
  setenv("ASAN_OPTIONS", (previous + ":quarantine_size_mb=8").c_str(), 1);
  ChildProcess sender = Start("sender");
  setenv("ASAN_OPTIONS", previous.c_str(), 1);
  ASSERT_TRUE(Ready({"receiver", "sender"}));

  m_controller->Tell("sender", Push("sender", "large.dat", "receiver", "large.out"));
  const std::optional<std::string> pushed = m_controller->TakeAnswer("sender", "pushed ", 120s);
  ASSERT_TRUE(pushed);
  const long peakKiB = std::atol(pushed->c_str() + std::strlen("pushed "));
  RecordProperty("sender_peak_resident_kib", static_cast<int>(peakKiB));
  EXPECT_LT(peakKiB, limitKiB) << "peak resident size of the sender, KiB";
  EXPECT_TRUE(SameContents(Path("large.dat"), Path("large.out")));
  Quit("receiver", receiver);
  Quit("sender", sender);
  EXPECT_EQ(ReadFile(Path("receiver.out")), "");
}

TEST_F(KelMsgFaultTest, FiftyProcessesGetEveryMessageOnceAndInOrderPerSender) {
  constexpr int kPeers = 50;
  constexpr int kCount = 100;  // messages from each sender to each of its receivers
  constexpr int kFanout = 4;
  std::vector<std::string> names;
  std::vector<ChildProcess> peers;
  for (int i = 0; i < kPeers; ++i) {
    names.push_back("p" + std::to_string(i));
    peers.push_back(Start(names.back(), {"--mesh", std::to_string(i), std::to_string(kPeers),
                                         std::to_string(kCount), std::to_string(kFanout)}));
  }
  ASSERT_TRUE(Ready(names));
  for (const std::string& name : names)
    ASSERT_EQ(m_controller->Tell(name, "go"), KELBUS_OK);
  for (const std::string& name : names)
    EXPECT_EQ(m_controller->TakeAnswer(name, "", 60s), "ok") << name;
  for (ChildProcess& peer : peers)
    EXPECT_EQ(peer.ExitCode(20s), 0);
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
// unit tests'.  The peer stays up through all of them and takes what follows.
TEST_F(KelMsgFaultTest, ForeignClientsGarbageIsRefusedWithAReportAndTheReceiverStaysUp) {
  std::string chunkPastEnd = Int32(3);
  for (int name = 0; name < 8; ++name)
    chunkPastEnd += Int32(0);
  chunkPastEnd += Int32(1) + Int32(1000) + "abc";
  const std::string garbage[][3] = {
      {"KelMsgStringType", "", "size >= 4"},
      {"KelMsgFileTransferType", Int32(0x40000000) + "abcd", "n >= 0 && n <= size - 4"},
      {"KelMsgAnalysisMessageType", Envelope(Int32(-5) + "<a/>"), "byteCount >= 0"},
      {"KelMsgProcessControlType", Envelope(Int32(1000) + "<Kill/>"), "byteCount <= bytesLeft"},
      {"KelMsgFileTransferType", Envelope(chunkPastEnd), "byteCount <= bytesLeft"},
      {"KelMsgNoSuchType", Envelope("anything"), "m_protos.IsMember(type)"},
      {"KelMsgStringType", Envelope("hello"), ""},
      {"KelMsgAnalysisMessageType", Envelope(Int32(0)), ""},
      {"KelMsgStringType", Envelope("quit"), ""}};
  ChildProcess collector = Start("collector");
  ASSERT_TRUE(m_controller->TakeAnswer("collector", "ready", 30s));

  std::string expected;
  for (const auto& [type, payload, report] : garbage) {
    WriteFile(Path("payload"), payload);
    ChildProcess publisher = ChildProcess::Exec(
        {KELMSG_MOSQUITTO_PUB, "-h", "127.0.0.1", "-p", std::to_string(m_broker.Port()), "-V",
         "mqttv5", "-q", "1", "-t", std::string(kNameSpace) + "/a/collector", "-D", "publish",
         "content-type", type, "-f", Path("payload")});
    ASSERT_EQ(publisher.ExitCode(10s), 0) << type;
    if (!report.empty())
      expected += "report AssertionFailed:" + report + "\n";
  }
  expected +=
      "delivered KelMsgStringType from raw: hello\n"
      "delivered KelMsgAnalysisMessageType from raw\n";
  // A normal exit: with the leak checker built in, a leak fails it.
  EXPECT_EQ(collector.ExitCode(20s), 0);
  EXPECT_EQ(ReadFile(Path("collector.out")), expected);
}

// origin (this process) -> relay -> sink: the relay's forwarding handler
// passes each message on under the relay's own identifier.
TEST_F(KelMsgFaultTest, MessagesRelayedAcrossThreeProcessesArriveUnderTheRelaysName) {
  ChildProcess sink = Start("sink");
  ChildProcess relay = Start("relay", {"--forward", "sink"});
  ASSERT_TRUE(Ready({"sink", "relay"}));
  m_controller->Tell("relay", "mesh ready");
  Quit("relay", relay);  // relayed too: the sink quits as well
  EXPECT_EQ(sink.ExitCode(20s), 0);
  EXPECT_EQ(ReadFile(Path("sink.out")), "delivered KelMsgStringType from relay: mesh ready\n");
  EXPECT_EQ(ReadFile(Path("relay.out")),
            "delivered KelMsgStringType from controller: mesh ready\n");
}

}  // namespace
