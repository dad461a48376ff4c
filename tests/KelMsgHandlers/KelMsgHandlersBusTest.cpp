// The handlers between real processes on a private broker: a message relayed
// through a forwarding handler, and departures reported to the disconnect
// watch.  Children are forked before this process joins the bus, so that no
// bus thread is running at a fork.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
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

// Writes the identifier and the bytes of the first message it receives to
// a file, then ends the wait.
class Recorder : public KelMsgBBMessageHandler {
 public:
  explicit Recorder(std::string path) : m_path(std::move(path)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& text = static_cast<const KelMsgStringType&>(msg);
    std::ofstream(m_path) << id << '\n' << std::string(text.Data(), text.Size());
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

std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  ::gethostname(name, sizeof name - 1);
  return name;
}

// True when `line` traces the departure of `app`, this host's process `pid`;
// the bus fills in the user.
bool TracesDeparture(const std::string& line, pid_t pid, const std::string& app) {
  const std::string upToUser = "in disconnection handler, process " + std::to_string(pid) +
                               " -- app -- " + app + " -- host " + HostName() + " -- user ";
  return line.size() > upToUser.size() && line.rfind(upToUser, 0) == 0;
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
};

// origin -> relay -> sink: the relay forwards with its own identifier (its
// echo is KelMsgFwdHandlerTest's).
TEST_F(KelMsgHandlersBusTest, RelayForwardsTheCloneUnderItsOwnIdentifier) {
  const ScratchDirectory scratch;
  const std::string received = scratch / "sink.txt";
  Signal sinkReady;
  Signal relayReady;

  ChildProcess sink = ChildProcess::Fork([&] {
    KelMsgBBCallbackManager registry;
    auto* recorder = new Recorder(received);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, recorder);
    BusMember member("sink");
    if (!member.Joined())
      return 10;
    KelMsgBBAPI::EnableReceiveHandling(member.Id(), "sink");
    sinkReady.Raise();
    return KelMsgBBAPI::WaitingLoop(member.Id(), kWaitLimitMs, recorder->Done()) == 0 ? 0 : 11;
  });

  ChildProcess relay = ChildProcess::Fork([&] {
    KelMsgBBCallbackManager registry;
    BusMember member("relay");
    if (!member.Joined())
      return 10;
    KelMsgBBCallbackManager::SetMessageID("relay");
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
        new KelMsgStringType, new KelMsgFwdHandler(KelString("sink"), member.Id()));
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
  KelMsgStringType note;
  note.SetData("mesh ready", 10);
  ASSERT_EQ(KelMsgBBAPI::SendRequest(origin.Id(), "relay", note), 0);

  EXPECT_EQ(sink.ExitCode(kLimit), 0);
  EXPECT_EQ(Contents(received), "relay\nmesh ready");
  KelMsgBBCallbackManager::SetMessageID("");
}

// This process watches the solver by process identifier and host (the name
// it watches is not the solver's), with the host in upper case.
TEST_F(KelMsgHandlersBusTest, DepartureOfTheWatchedProcessEndsTheWait) {
  Signal mesherReady, mesherGo, solverReady, solverGo;
  ChildProcess mesher = ChildProcess::Fork([&] { return Leave("mesher", mesherReady, mesherGo); });
  ChildProcess solver = ChildProcess::Fork([&] { return Leave("solver", solverReady, solverGo); });
  ASSERT_TRUE(mesherReady.Await(kLimit));
  ASSERT_TRUE(solverReady.Await(kLimit));

  BusMember monitor("monitor");
  ASSERT_TRUE(monitor.Joined());
  KelMsgSimpleDisconnectHandler watch;
  KelString otherCase(HostName().c_str());
  otherCase.ASCIIToUpper();
  watch.SetWatchApplication("not-the-solver", solver.Pid(), otherCase.GetUTF8());
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
  EXPECT_TRUE(TracesDeparture(lines[0], mesher.Pid(), "mesher")) << lines[0];
  EXPECT_TRUE(TracesDeparture(lines[1], solver.Pid(), "solver")) << lines[1];
  EXPECT_EQ(lines[2], kConfirmExit);
}

// Under the default behaviour the watcher, a child here, ends with status 0
// as soon as the watched application leaves; any other way out of its wait
// ends it with another status.
TEST_F(KelMsgHandlersBusTest, DepartureOfTheWatchedApplicationEndsTheWatcher) {
  Signal solverReady, solverGo, watcherReady;
  ChildProcess solver = ChildProcess::Fork([&] { return Leave("solver", solverReady, solverGo); });
  ChildProcess watcher = ChildProcess::Fork([&] {
    KelMsgBBCallbackManager registry;
    BusMember member("monitor");
    KelMsgSimpleDisconnectHandler watch;
    watch.SetWatchApplication("solver", 0, nullptr);
    KelMsgBBCallbackManager::AssociateDisconnectHandler(&watch);
    if (!member.Joined() || KelMsgBBAPI::EnableDisconnectHandling(member.Id(), "monitor") != 0)
      return 10;
    watcherReady.Raise();
    int never = -1;
    KelMsgBBAPI::WaitingLoop(member.Id(), kWaitLimitMs, never);
    return 11;
  });
  ASSERT_TRUE(solverReady.Await(kLimit));
  ASSERT_TRUE(watcherReady.Await(kLimit));
  solverGo.Raise();
  EXPECT_EQ(solver.ExitCode(kLimit), 0);
  EXPECT_EQ(watcher.ExitCode(kLimit), 0);
}

}  // namespace
