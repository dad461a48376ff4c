// The handlers between real processes on a private broker: a message relayed
// through a forwarding handler, and departures reported to the disconnect
// watch.  Children are forked before this process joins the bus, so that no
// bus thread is running at a fork.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <climits>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "NoteMessage.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kWaitLimitMs = 20000;
constexpr seconds kLimit(20);
constexpr char kConfirmExit[] = "Exit Handler -- confirm exit";

// A one-byte signal between two processes, over a pipe made before the fork.
class Signal {
 public:
  Signal() {
    if (::pipe2(m_ends, O_CLOEXEC) != 0)
      m_ends[0] = m_ends[1] = -1;
  }
  ~Signal() {
    for (int end : m_ends) {
      if (end >= 0)
        ::close(end);
    }
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;

  void Raise() { (void)::write(m_ends[1], "!", 1); }
  bool Await(milliseconds limit) {
    pollfd readable{m_ends[0], POLLIN, 0};
    char byte = 0;
    return ::poll(&readable, 1, static_cast<int>(limit.count())) == 1 &&
           ::read(m_ends[0], &byte, 1) == 1;
  }

 private:
  int m_ends[2];
};

// A communicator that holds an application for the length of a scope.
class BusMember {
 public:
  explicit BusMember(const char* app) {
    m_result = KelMsgBBAPI::RegisterCommunicator(app, m_id);
    if (m_result == 0)
      m_result = KelMsgBBAPI::DeclareApplicationId(m_id, app, false);
  }
  ~BusMember() {
    if (m_id > 0)
      CloseCommunicator(m_id);
  }
  BusMember(const BusMember&) = delete;
  BusMember& operator=(const BusMember&) = delete;

  bool Joined() const { return m_result == 0; }
  int Id() const { return m_id; }

 private:
  int m_id = -1;
  int m_result;
};

// Writes the identifier and the text of the first note it receives to a
// file, then ends the wait.
class NoteRecorder : public KelMsgBBMessageHandler {
 public:
  explicit NoteRecorder(std::string path) : m_path(std::move(path)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    std::ofstream(m_path) << id << '\n' << static_cast<const NoteMessage&>(msg).Text();
    m_done = 0;
  }
  int& Done() { return m_done; }

 private:
  std::string m_path;
  int m_done = -1;
};

std::string Contents(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The file's contents once they equal `expected`, or what they are when the
// limit has passed.
std::string EventualContents(const std::string& path, const std::string& expected) {
  const auto end = std::chrono::steady_clock::now() + kLimit;
  std::string contents = Contents(path);
  while (contents != expected && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(20));
    contents = Contents(path);
  }
  return contents;
}

// The lines of `text` that the handler wrote: the bus reports its own
// connection events on standard error too, as lines that begin "KelBus:".
std::vector<std::string> HandlerLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("KelBus:", 0) != 0)
      lines.push_back(line);
  }
  return lines;
}

// The trace line of a departure up to its user, which the bus fills in.
std::string TraceUpToUser(pid_t pid, const std::string& app, const std::string& host) {
  return "in disconnection handler, process " + std::to_string(pid) + " -- app -- " + app +
         " -- host " + host + " -- user ";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0 && text.size() > prefix.size();
}

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof name - 1);
  return name;
}

std::string SwapCase(std::string text) {
  for (char& c : text) {
    const auto byte = static_cast<unsigned char>(c);
    c = static_cast<char>(std::isupper(byte) ? std::tolower(byte) : std::toupper(byte));
  }
  return text;
}

// Holds `app` until told to go, then closes its communicator, which
// publishes its departure.
int Leave(const char* app, Signal& ready, Signal& go) {
  BusMember member(app);
  if (!member.Joined())
    return 10;
  ready.Raise();
  return go.Await(kLimit) ? 0 : 11;
}

class KelMsgHandlersBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl();
  }

  TestBroker m_broker;
  ScratchDirectory m_scratch;
};

// origin -> relay -> sink: the relay forwards with its own identifier and
// echoes what it forwards.
TEST_F(KelMsgHandlersBusTest, RelayForwardsTheCloneUnderItsOwnIdentifier) {
  const std::string received = m_scratch / "sink.txt";
  const std::string echoed = m_scratch / "echo.txt";
  Signal sinkReady;
  Signal relayReady;

  ChildProcess sink = ChildProcess::Fork([&] {
    KelMsgBBCallbackManager registry;
    auto* recorder = new NoteRecorder(received);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new NoteMessage, recorder);
    BusMember member("sink");
    if (!member.Joined())
      return 10;
    KelMsgBBAPI::EnableReceiveHandling(member.Id(), "sink");
    sinkReady.Raise();
    return KelMsgBBAPI::WaitingLoop(member.Id(), kWaitLimitMs, recorder->Done()) == 0 ? 0 : 11;
  });

  ChildProcess relay = ChildProcess::Fork([&] {
    FILE* echo = std::fopen(echoed.c_str(), "w");
    if (echo == nullptr)
      return 9;
    // The relay is killed at the end, so nothing may wait in a buffer.
    std::setvbuf(echo, nullptr, _IONBF, 0);
    KelMsgBBCallbackManager registry;
    BusMember member("relay");
    if (!member.Joined())
      return 10;
    KelMsgBBCallbackManager::SetMessageID("relay");
    auto* forward = new KelMsgFwdHandler(KelString("sink"), member.Id());
    forward->SetEcho(true, echo);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new NoteMessage, forward);
    KelMsgBBAPI::EnableReceiveHandling(member.Id(), "relay");
    relayReady.Raise();
    int never = -1;
    KelMsgBBAPI::WaitingLoop(member.Id(), kWaitLimitMs, never);
    return 0;
  });

  ASSERT_TRUE(sinkReady.Await(kLimit));
  ASSERT_TRUE(relayReady.Await(kLimit));
  KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::SetMessageID("origin");
  BusMember origin("origin");
  ASSERT_TRUE(origin.Joined());
  ASSERT_EQ(KelMsgBBAPI::SendRequest(origin.Id(), "relay", NoteMessage("mesh ready")), 0);

  EXPECT_EQ(sink.ExitCode(kLimit), 0);
  EXPECT_EQ(Contents(received), "relay\nmesh ready");
  EXPECT_EQ(EventualContents(echoed, "Message Type: NoteMessage\n  note: mesh ready\n"),
            "Message Type: NoteMessage\n  note: mesh ready\n");
  KelMsgBBCallbackManager::SetMessageID("");
}

// This process watches the solver by process identifier and host (the name
// it watches is not the solver's), with the host in the other case.
TEST_F(KelMsgHandlersBusTest, DepartureOfTheWatchedProcessEndsTheWait) {
  Signal mesherReady, mesherGo, solverReady, solverGo;
  ChildProcess mesher = ChildProcess::Fork([&] { return Leave("mesher", mesherReady, mesherGo); });
  ChildProcess solver = ChildProcess::Fork([&] { return Leave("solver", solverReady, solverGo); });
  ASSERT_TRUE(mesherReady.Await(kLimit));
  ASSERT_TRUE(solverReady.Await(kLimit));

  BusMember monitor("monitor");
  ASSERT_TRUE(monitor.Joined());
  KelMsgSimpleDisconnectHandler watch;
  watch.SetWatchApplication("not-the-solver", solver.Pid(), SwapCase(HostName()).c_str());
  watch.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&watch);
  ASSERT_EQ(KelMsgBBAPI::EnableDisconnectHandling(monitor.Id(), "monitor"), 0);

  ::testing::internal::CaptureStderr();
  mesherGo.Raise();
  const std::optional<int> mesherExit = mesher.ExitCode(kLimit);
  solverGo.Raise();
  const int waited = KelMsgBBAPI::WaitingLoop(monitor.Id(), kWaitLimitMs, watch.EndingCondition());
  const std::vector<std::string> lines = HandlerLines(::testing::internal::GetCapturedStderr());
  KelMsgBBCallbackManager::AssociateDisconnectHandler(nullptr);

  EXPECT_EQ(mesherExit, 0);
  EXPECT_EQ(solver.ExitCode(kLimit), 0);
  EXPECT_EQ(waited, 0);
  EXPECT_EQ(watch.EndingCondition(), 0);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_TRUE(StartsWith(lines[0], TraceUpToUser(mesher.Pid(), "mesher", HostName()))) << lines[0];
  EXPECT_TRUE(StartsWith(lines[1], TraceUpToUser(solver.Pid(), "solver", HostName()))) << lines[1];
  EXPECT_EQ(lines[2], kConfirmExit);
}

// Under the default behaviour the watcher, a child here, ends with status 0
// as soon as the watched application leaves.
TEST_F(KelMsgHandlersBusTest, DepartureOfTheWatchedApplicationEndsTheWatcher) {
  const std::string watcherErr = m_scratch / "watcher.err";
  Signal solverReady, solverGo, watcherReady;
  ChildProcess solver = ChildProcess::Fork([&] { return Leave("solver", solverReady, solverGo); });
  ChildProcess watcher = ChildProcess::Fork([&] {
    if (std::freopen(watcherErr.c_str(), "w", stderr) == nullptr)
      return 9;
    KelMsgBBCallbackManager registry;
    BusMember member("monitor");
    if (!member.Joined())
      return 10;
    KelMsgSimpleDisconnectHandler watch;
    watch.SetWatchApplication("solver", 0, nullptr);
    KelMsgBBCallbackManager::AssociateDisconnectHandler(&watch);
    if (KelMsgBBAPI::EnableDisconnectHandling(member.Id(), "monitor") != 0)
      return 11;
    watcherReady.Raise();
    int never = -1;
    KelMsgBBAPI::WaitingLoop(member.Id(), kWaitLimitMs, never);
    return 12;  // the departure should have ended the process before
  });
  ASSERT_TRUE(solverReady.Await(kLimit));
  ASSERT_TRUE(watcherReady.Await(kLimit));

  solverGo.Raise();
  EXPECT_EQ(solver.ExitCode(kLimit), 0);
  EXPECT_EQ(watcher.ExitCode(kLimit), 0);
  const std::vector<std::string> lines = HandlerLines(Contents(watcherErr));
  ASSERT_EQ(lines.size(), 2U) << Contents(watcherErr);
  EXPECT_TRUE(StartsWith(lines[0], TraceUpToUser(solver.Pid(), "solver", HostName()))) << lines[0];
  EXPECT_EQ(lines[1], kConfirmExit);
}

}  // namespace
