// What only a broker and real processes show, with a broker that each test
// starts: departures of processes that exit or die, many open descriptors, a
// message too large, a missing broker, a lost connection and the send
// window.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "BusTestSupport.h"
#include "ChildProcess.h"
#include "TestBroker.h"

using namespace bustest;
using namespace std::chrono_literals;

namespace {

class KelBusBroker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl("test");
    Received() = {};
  }

  TestBroker m_broker;
};

// In a child: joins as `app`.  Returns the communicator, or 0.
int Join(const char* app) {
  int id = 0;
  if (RegisterCommunicator(app, &id) != KELBUS_OK || DeclareApplicationId(id, app, 0) != KELBUS_OK)
    return 0;
  return id;
}

// Exiting normally publishes the departure; so does being killed, even while
// a forked child of the process holds copies of its sockets.
TEST_F(KelBusBroker, ExitingAndKilledProcessesAreReported) {
  Member watcher("watcher");
  ASSERT_EQ(CollectMessages(watcher.Id()), KELBUS_OK);
  ASSERT_EQ(CollectReports(watcher.Id()), KELBUS_OK);
  ChildProcess exiter = ChildProcess::Fork([] {
    const int id = Join("exiter");
    if (id == 0 || Send(id, "watcher", "ready", "") != KELBUS_OK)
      return 1;
    std::exit(0);
  });
  ASSERT_TRUE(Await(1, 1));
  EXPECT_EQ(exiter.ExitCode(10s), 0);
  ExpectReportOf(Received().reports[0], exiter.Pid(), "exiter");

  ChildProcess parent = ChildProcess::Fork([] {
    const int id = Join("parent");
    // A plain fork: a ChildProcess would die with its parent, and the point
    // is a grandchild that outlives it holding the inherited sockets.
    const pid_t grandchild = id == 0 ? -1 : fork();
    if (grandchild == 0) {
      std::this_thread::sleep_for(30s);
      _exit(0);
    }
    if (Send(id, "watcher", "ready", std::to_string(grandchild)) != KELBUS_OK)
      return 1;
    std::this_thread::sleep_for(30s);
    return 0;
  });
  ASSERT_TRUE(Await(2, 1));
  const pid_t grandchild = std::stoi(Received().messages[1].bytes);
  parent.Kill();
  const bool reported = Await(2, 2);
  kill(grandchild, SIGKILL);
  ASSERT_TRUE(reported);
  ExpectReportOf(Received().reports[1], parent.Pid(), "parent");
}

// A solver may hold many files open; the bus's socket then gets a descriptor
// above what select() can watch.
TEST_F(KelBusBroker, AProcessHoldingThousandsOfDescriptorsUsesTheBus) {
  constexpr rlim_t kDescriptors = 1100;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < kDescriptors + 64)
    GTEST_SKIP() << "the hard limit on open files is " << limit.rlim_max;
  Member watcher("watcher");
  ASSERT_EQ(CollectMessages(watcher.Id()), KELBUS_OK);
  ChildProcess crowded = ChildProcess::Fork([&limit] {
    limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, kDescriptors + 64);
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
      return 1;
    for (rlim_t i = 0; i < kDescriptors; ++i) {
      if (open("/dev/null", O_RDONLY) < 0)
        return 2;
    }
    const int id = Join("crowded");
    if (id == 0 || CollectMessages(id) != KELBUS_OK ||
        Send(id, "watcher", "ready", "") != KELBUS_OK)
      return 3;
    return Await(1) && Received().messages[0].bytes == "answer" ? 0 : 4;
  });
  ASSERT_TRUE(Await(1));
  ASSERT_EQ(Send(watcher.Id(), "crowded", "T", "answer"), KELBUS_OK);
  EXPECT_EQ(crowded.ExitCode(15s), 0);
}

TEST_F(KelBusBroker, AMessageLargerThanTheBrokerTakesIsRefusedAlone) {
  Member holder("large");
  ASSERT_EQ(CollectMessages(holder.Id()), KELBUS_OK);
  const std::string tooLarge(65 << 20, 'L');  // the broker takes 64 MiB
  EXPECT_EQ(Send(holder.Id(), "large", "T", tooLarge), KELBUS_ERR_TOO_LARGE);
  ASSERT_EQ(Send(holder.Id(), "large", "T", "next"), KELBUS_OK);
  ASSERT_TRUE(Await(1));
  EXPECT_EQ(Received().messages[0].bytes, "next");
}

TEST_F(KelBusBroker, AMissingBrokerIsReportedWithinSeconds) {
  const std::string url = m_broker.Url("test");
  m_broker.Kill();
  const DiagnosticLines diagnostics;
  int id = 0;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(RegisterCommunicator("lonely", &id), KELBUS_ERR_UNREACHABLE);
  EXPECT_LT(std::chrono::steady_clock::now() - start,
            std::chrono::seconds(KELBUS_CONNECT_SECONDS + 1));
  const auto lines = diagnostics.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find(url), std::string::npos) << lines[0];
  EXPECT_NE(lines[0].find("mosquitto -c"), std::string::npos) << lines[0];
}

TEST_F(KelBusBroker, ALostConnectionIsRestoredAndWhatWasSentMeanwhileArrives) {
  Member member("phoenix");
  ASSERT_EQ(CollectMessages(member.Id()), KELBUS_OK);
  const DiagnosticLines diagnostics;
  m_broker.Kill();
  // Some go before the loss shows, some after.
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(Send(member.Id(), "phoenix", "T", std::to_string(i)), KELBUS_OK) << KelBusLastError();
    std::this_thread::sleep_for(20ms);
  }
  ASSERT_TRUE(m_broker.Restart()) << m_broker.Error();
  ASSERT_TRUE(Await(20));
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(Received().messages[i].bytes, std::to_string(i));
  const std::string url = m_broker.Url("test");
  const auto lines = diagnostics.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].rfind("KelBus: lost the connection to " + url + " (", 0), 0u) << lines[0];
  EXPECT_EQ(lines[1], "KelBus: the connection to " + url + " is restored");
}

// A plain MQTT client forges the sequence labels of a sender: a message
// seen before is dropped, one after a gap is delivered with a report, a
// malformed label is refused with a report, and no label at all is plain.
TEST_F(KelBusBroker, RepeatsAreDroppedAndGapsAndForgeriesReported) {
  Member holder("numbered");
  ASSERT_EQ(CollectMessages(holder.Id()), KELBUS_OK);
  const DiagnosticLines diagnostics;
  const std::pair<std::string, std::string> published[] = {{"00000000000000ab:1", "one"},
                                                           {"00000000000000ab:1", "again"},
                                                           {"00000000000000ab:4", "four"},
                                                           {"00000000000000AB:5", "forged"},
                                                           {"", "plain"}};
  for (const auto& [label, text] : published) {
    std::vector<std::string> command = {KELMSG_MOSQUITTO_PUB,
                                        "-p",
                                        std::to_string(m_broker.Port()),
                                        "-V",
                                        "5",
                                        "-q",
                                        "1",
                                        "-t",
                                        "test/a/numbered",
                                        "-m",
                                        text};
    if (!label.empty())
      command.insert(command.end(), {"-D", "publish", "user-property", "kelbus-seq", label});
    ASSERT_EQ(ChildProcess::Exec(command, "/dev/null").ExitCode(10s), 0);
  }
  ASSERT_TRUE(Await(3));
  EXPECT_EQ(Received().messages[0].bytes, "one");
  EXPECT_EQ(Received().messages[1].bytes, "four");
  EXPECT_EQ(Received().messages[2].bytes, "plain");
  const auto lines = diagnostics.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(
      lines[0],
      "KelBus: 2 message(s) from sender 00000000000000ab to application 'numbered' were lost");
  EXPECT_NE(lines[1].find("'00000000000000AB:5' is malformed"), std::string::npos) << lines[1];
}

// The holder's credit window: a sender to a holder that does not dispatch
// stops at the window, and goes on once the holder waits.
TEST_F(KelBusBroker, ASenderWaitsUntilItsReceiverDispatches) {
  Member sink("sink");
  ASSERT_EQ(CollectMessages(sink.Id()), KELBUS_OK);
  Member source;
  const std::string block(64 * 1024, 'b');
  const int window = KELBUS_RECEIVE_WINDOW_BYTES / static_cast<int>(block.size());
  std::atomic<int> sent{0};
  std::thread sender([&] {
    while (sent < 2 * window && Send(source.Id(), "sink", "T", block) == KELBUS_OK)
      ++sent;
  });
  for (int before = -1; before != sent;) {  // until the sender stops
    before = sent;
    std::this_thread::sleep_for(500ms);
  }
  EXPECT_LE(sent, window);
  ASSERT_TRUE(Await(static_cast<std::size_t>(2 * window)));
  sender.join();
  EXPECT_EQ(sent, 2 * window);
}

TEST_F(KelBusBroker, SendRequestWaitsWhileTheBrokerHoldsBackItsAcknowledgements) {
  Member source;  // to a name nobody holds: no credit window
  const std::string block(64 * 1024, 'b');
  constexpr int kMessages = 200;
  std::atomic<int> sent{0};
  ASSERT_EQ(Send(source.Id(), "unheld", "T", ""), KELBUS_OK);  // learns nobody holds it
  m_broker.Signal(SIGSTOP);
  std::thread sender([&] {
    while (sent < kMessages && Send(source.Id(), "unheld", "T", block) == KELBUS_OK)
      ++sent;
  });
  std::this_thread::sleep_for(1500ms);
  const int sentWhileFrozen = sent;
  m_broker.Signal(SIGCONT);
  sender.join();
  EXPECT_GT(sentWhileFrozen, 0);
  EXPECT_LE(sentWhileFrozen, KELBUS_SEND_WINDOW_BYTES / static_cast<int>(block.size()) + 1);
  EXPECT_EQ(sent, kMessages);
}

}  // namespace
