// Faults on purpose, with real processes on a real broker: a sender killed
// in the middle of a push, the broker killed and restarted under connected
// processes, a receiver slower than its sender, fifty processes at once, and
// a foreign MQTT client that publishes garbage to an application.
//
// The processes are kelmsg_fault_peer programs (FaultPeer.cpp) that this
// process steers through the bus as their controller.
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "Controller.h"
#include "RawMqttClient.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

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

bool SameContents(const std::string& a, const std::string& b) {
  std::ifstream left(a, std::ios::binary);
  std::ifstream right(b, std::ios::binary);
  if (!left || !right || fs::file_size(a) != fs::file_size(b))
    return false;
  std::vector<char> leftBlock(kMiB);
  std::vector<char> rightBlock(kMiB);
  while (left) {
    left.read(leftBlock.data(), static_cast<std::streamsize>(leftBlock.size()));
    right.read(rightBlock.data(), static_cast<std::streamsize>(rightBlock.size()));
    if (left.gcount() != right.gcount() ||
        !std::equal(leftBlock.begin(), leftBlock.begin() + left.gcount(), rightBlock.begin())) {
      return false;
    }
  }
  return true;
}

std::uintmax_t SizeOrZero(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

std::vector<std::string> Lines(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    lines.push_back(line);
  return lines;
}

// The peer's command for a blocking push of base/file to target's
// targetBase/targetJob/targetFile.
std::string Push(const std::string& source, const std::string& base, const std::string& file,
                 const std::string& target, const std::string& targetBase,
                 const std::string& targetJob, const std::string& targetFile) {
  return "push\n" + source + "\n" + base + "\n\n" + file + "\n" + target + "\n" + targetBase +
         "\n" + targetJob + "\n" + targetFile;
}

// The peak resident size a peer reported with "pushed <KiB>", or -1 while
// `sender` has not answered.
long PushedResidentKiB(const std::vector<Answer>& answers, const std::string& sender) {
  for (const Answer& answer : answers) {
    if (answer.sender == sender && answer.text.rfind("pushed ", 0) == 0)
      return std::atol(answer.text.c_str() + 7);
  }
  return -1;
}

bool AwaitReady(Controller& controller, std::size_t peers, std::chrono::milliseconds limit) {
  return controller.Await(
      [peers](const std::vector<Answer>& answers) {
        return CountAnswers(answers, "ready") >= peers;
      },
      limit);
}

// Sets an environment variable for the scope, for the processes started in it.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::string& value) : m_name(name) {
    const char* previous = std::getenv(name);
    if (previous != nullptr)
      m_previous = previous;
    m_hadValue = previous != nullptr;
    setenv(name, value.c_str(), 1);
  }
  ~ScopedEnvironment() {
    if (m_hadValue) {
      setenv(m_name, m_previous.c_str(), 1);
    } else {
      unsetenv(m_name);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* m_name;
  std::string m_previous;
  bool m_hadValue = false;
};

class KelMsgFaultTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl(kNameSpace);
  }

  std::string Path(const std::string& name) const { return m_scratch / name; }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

TEST_F(KelMsgFaultTest, SenderKilledInAPushLeavesTheReceiverServingTheNextSender) {
  const std::uintmax_t bigSize = 128 * kMiB;
  WritePatternFile(Path("big.dat"), bigSize);
  WritePatternFile(Path("small.dat"), 3 * kMiB + 5);
  fs::create_directory(Path("in"));

  Controller controller;
  ASSERT_TRUE(controller.Joined());
  KelMsgSimpleDisconnectHandler watcher;
  watcher.SetWatchApplication("sender1", 0, nullptr);
  watcher.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&watcher);
  ASSERT_EQ(KelMsgBBAPI::EnableDisconnectHandling(controller.Id(), "controller"), KELBUS_OK);

  ChildProcess receiver = controller.StartPeer({"receiver"}, Path("receiver.out"));
  ChildProcess sender1 = controller.StartPeer({"sender1"}, Path("sender1.out"));
  ChildProcess sender2 = controller.StartPeer({"sender2"}, Path("sender2.out"));
  ASSERT_TRUE(AwaitReady(controller, 3, 30s));

  const std::string partial = Path("in/big.out");
  ASSERT_EQ(controller.Tell("sender1", Push("sender1", m_scratch.Path(), "big.dat", "receiver",
                                            m_scratch.Path(), "in", "big.out")),
            KELBUS_OK);
  const auto started = std::chrono::steady_clock::now();
  while (SizeOrZero(partial) < 4 * kMiB && std::chrono::steady_clock::now() - started < 30s)
    controller.Dispatch(5ms);
  ASSERT_GE(SizeOrZero(partial), 4 * kMiB);
  ASSERT_LT(SizeOrZero(partial), bigSize) << "the push ended before the sender could be killed";

  const auto killed = std::chrono::steady_clock::now();
  sender1.Kill();
  EXPECT_EQ(KelMsgBBAPI::WaitingLoop(controller.Id(), 1000, watcher.EndingCondition()), KELBUS_OK);
  EXPECT_LT(std::chrono::steady_clock::now() - killed, 1s) << "the watcher learned too late";

  ASSERT_EQ(controller.Tell("sender2", Push("sender2", m_scratch.Path(), "small.dat", "receiver",
                                            m_scratch.Path(), "in", "small.out")),
            KELBUS_OK);
  ASSERT_TRUE(controller.Await(
      [](const std::vector<Answer>& answers) { return PushedResidentKiB(answers, "sender2") > 0; },
      30s));
  EXPECT_TRUE(SameContents(Path("small.dat"), Path("in/small.out")));
  EXPECT_LT(SizeOrZero(partial), bigSize);

  ASSERT_TRUE(receiver.Running());
  controller.Tell("receiver", "quit");
  controller.Tell("sender2", "quit");
  EXPECT_EQ(receiver.ExitCode(10s), 0);
  EXPECT_EQ(sender2.ExitCode(10s), 0);
  EXPECT_EQ(Lines(Path("receiver.out")), std::vector<std::string>{})
      << "the receiver reported or received something it should not";
}

TEST_F(KelMsgFaultTest, BrokerRestartedUnderTwoConnectedProcessesBothResume) {
  Controller controller;
  ASSERT_TRUE(controller.Joined());
  ChildProcess echo = controller.StartPeer({"echo"}, Path("echo.out"));
  ASSERT_TRUE(AwaitReady(controller, 1, 30s));
  ASSERT_EQ(controller.Tell("echo", "sync"), KELBUS_OK);
  ASSERT_TRUE(controller.AwaitAnswer("echo", "synced", 10s));

  m_broker.Kill();
  ASSERT_TRUE(m_broker.Restart()) << m_broker.Error();

  // Sends are refused while this process's connection is down, and a request
  // that reaches the broker before the peer is back is lost: ask again until
  // one goes round.
  controller.ClearAnswers();
  const auto restarted = std::chrono::steady_clock::now();
  bool answered = false;
  while (!answered && std::chrono::steady_clock::now() - restarted < 40s) {
    controller.Tell("echo", "sync");
    answered = controller.AwaitAnswer("echo", "synced", 250ms);
  }
  EXPECT_TRUE(answered) << m_broker.Log();

  ASSERT_TRUE(echo.Running());
  controller.Tell("echo", "quit");
  EXPECT_EQ(echo.ExitCode(10s), 0);
}

TEST_F(KelMsgFaultTest, SlowReceiverLosesNothingAndTheSendersMemoryStaysBounded) {
  const std::uintmax_t size = 256 * kMiB;
  // The sender's peak resident size stays under a quarter of what it pushes
  // (about 12 MiB measured without sanitizers, 36 MiB with them).
  const long limitKiB = 64 * 1024;
  WritePatternFile(Path("large.dat"), size);

  Controller controller;
  ASSERT_TRUE(controller.Joined());
  ChildProcess receiver =
      controller.StartPeer({"receiver", "--sleep-us", "1000"}, Path("receiver.out"));
  ChildProcess sender = [&] {
    // AddressSanitizer keeps freed memory in quarantine, 256 MiB of it by
    // default, which would count against the limit; a small quarantine keeps
    // the figure about the sender's own memory.  Without the sanitizer the
    // variable means nothing.
    const char* options = std::getenv("ASAN_OPTIONS");
    ScopedEnvironment asan(
        "ASAN_OPTIONS", std::string(options != nullptr ? options : "") + ":quarantine_size_mb=8");
    return controller.StartPeer({"sender"}, Path("sender.out"));
  }();
  ASSERT_TRUE(AwaitReady(controller, 2, 30s));

  ASSERT_EQ(controller.Tell("sender", Push("sender", m_scratch.Path(), "large.dat", "receiver",
                                           m_scratch.Path(), "", "large.out")),
            KELBUS_OK);
  ASSERT_TRUE(controller.Await(
      [](const std::vector<Answer>& answers) { return PushedResidentKiB(answers, "sender") > 0; },
      120s));
  const long peakKiB = PushedResidentKiB(controller.Answers(), "sender");
  RecordProperty("sender_peak_resident_kib", static_cast<int>(peakKiB));
  EXPECT_LT(peakKiB, limitKiB) << "peak resident size of the sender, KiB";
  EXPECT_TRUE(SameContents(Path("large.dat"), Path("large.out")));

  controller.Tell("receiver", "quit");
  controller.Tell("sender", "quit");
  EXPECT_EQ(receiver.ExitCode(20s), 0);
  EXPECT_EQ(sender.ExitCode(20s), 0);
  EXPECT_EQ(Lines(Path("receiver.out")), std::vector<std::string>{});
}

TEST_F(KelMsgFaultTest, FiftyProcessesGetEveryMessageOnceAndInOrderPerSender) {
  constexpr int kPeers = 50;
  constexpr int kCount = 100;  // messages from each sender to each of its receivers
  constexpr int kFanout = 4;
  Controller controller;
  ASSERT_TRUE(controller.Joined());
  std::vector<ChildProcess> peers;
  for (int i = 0; i < kPeers; ++i) {
    const std::string name = "p" + std::to_string(i);
    peers.push_back(controller.StartPeer({name, "--mesh", std::to_string(i), std::to_string(kPeers),
                                          std::to_string(kCount), std::to_string(kFanout)},
                                         Path(name + ".out")));
  }
  ASSERT_TRUE(AwaitReady(controller, kPeers, 60s));

  for (int i = 0; i < kPeers; ++i)
    ASSERT_EQ(controller.Tell("p" + std::to_string(i), "go"), KELBUS_OK);
  controller.Await(
      [](const std::vector<Answer>& answers) {
        return CountAnswers(answers, "ok") == kPeers ||
               std::any_of(answers.begin(), answers.end(),
                           [](const Answer& answer) { return answer.text.rfind("bad", 0) == 0; });
      },
      60s);
  std::vector<std::string> verdicts;
  for (const Answer& answer : controller.Answers()) {
    if (answer.text != "ready")
      verdicts.push_back(answer.sender + ": " + answer.text);
  }
  EXPECT_EQ(CountAnswers(controller.Answers(), "ok"), static_cast<std::size_t>(kPeers))
      << ::testing::PrintToString(verdicts);
  for (ChildProcess& peer : peers)
    EXPECT_EQ(peer.ExitCode(20s), 0);
}

// What a foreign client publishes, and the report that refuses it.
struct Garbage {
  std::string type;
  std::string payload;
  std::string report;
};

std::string Int32(std::int32_t value) {
  std::string bytes(sizeof value, '\0');
  std::memcpy(bytes.data(), &value, sizeof value);
  return bytes;
}

// An envelope with a correct identifier around `payload`.
std::string Envelope(const std::string& payload) {
  return Int32(3) + "raw" + payload;
}

// One of each refusal on the receiving path: the envelope's checks are the
// same for every type, and each type's own are the unit tests'.
std::vector<Garbage> GarbageOfEveryKind() {
  std::string chunkPastEnd = Int32(3);
  for (int name = 0; name < 8; ++name)
    chunkPastEnd += Int32(0);
  chunkPastEnd += Int32(1) + Int32(1000) + "abc";
  return {
      {"KelMsgStringType", "", "AssertionFailed:size >= 4"},
      {"KelMsgFileTransferType", Int32(0x40000000) + "abcd",
       "AssertionFailed:n >= 0 && n <= size - 4"},
      {"KelMsgAnalysisMessageType", Envelope(Int32(-5) + "<a/>"), "AssertionFailed:byteCount >= 0"},
      {"KelMsgProcessControlType", Envelope(Int32(1000) + "<Kill/>"),
       "AssertionFailed:byteCount <= bytesLeft"},
      {"KelMsgFileTransferType", Envelope(chunkPastEnd), "AssertionFailed:byteCount <= bytesLeft"},
      {"KelMsgNoSuchType", Envelope("anything"), "AssertionFailed:m_protos.IsMember(type)"}};
}

TEST_F(KelMsgFaultTest, ForeignClientsGarbageIsRefusedWithAReportAndTheReceiverStaysUp) {
  Controller controller;
  ASSERT_TRUE(controller.Joined());
  ChildProcess collector = controller.StartPeer({"collector"}, Path("collector.out"));
  ASSERT_TRUE(AwaitReady(controller, 1, 30s));

  RawMqttClient raw(m_broker.Port());
  ASSERT_TRUE(raw.Connected());
  const std::string topic = std::string(kNameSpace) + "/a/collector";
  const auto publish = [&](const std::string& type, const std::string& payload) {
    return raw.Publish(topic, payload.data(), static_cast<int>(payload.size()), type);
  };
  std::vector<std::string> expected;
  for (const Garbage& garbage : GarbageOfEveryKind()) {
    ASSERT_TRUE(publish(garbage.type, garbage.payload));
    expected.push_back("report " + garbage.report);
  }
  // Still listening: a well-formed message after all that is delivered.
  ASSERT_TRUE(publish("KelMsgStringType", Envelope("hello")));
  expected.push_back("delivered KelMsgStringType 5");
  ASSERT_TRUE(publish("KelMsgAnalysisMessageType", Envelope(Int32(0))));
  expected.push_back("delivered KelMsgAnalysisMessageType");
  ASSERT_TRUE(publish("KelMsgStringType", Envelope("quit")));
  ASSERT_TRUE(raw.Flush(10s));

  // A normal exit: with the leak checker built in, a leak fails it.
  EXPECT_EQ(collector.ExitCode(20s), 0);
  EXPECT_EQ(Lines(Path("collector.out")), expected);
}

}  // namespace
