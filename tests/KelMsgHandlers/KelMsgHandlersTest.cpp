// The library's handlers.  What the printing and forwarding handlers write
// to the streams they are given, and when they flush it; relaying between
// processes is a fault scenario of its own (tests/faults).  Which departures
// the disconnect watch takes for its application, what it traces, and how it
// ends a wait or the process; kelmsg watch runs it on real departures.
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>
#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <gtest/gtest.h>

#include "MemoryStream.h"

namespace {

// The message prints without flushing, so the stream shows exactly what the
// handler flushed.
constexpr char kPrintout[] = "Message Type: KelMsgFileTransferType\n   DataType: 0\n";

TEST(KelMsgPrintingHandlerTest, FlushesTheTraceLineBeforeTheMessagePrints) {
  MemoryStream stream;
  const KelMsgFileTransferType msg;
  const std::string trace = "KelMsgPrintingHandler::HandleMessage -- id caf\xC3\xA9\n";
  {
    KelMsgPrintingHandler handler(stream.Get());
    handler.HandleMessage(msg, "caf\xC3\xA9");
    EXPECT_EQ(stream.Flushed(), trace);
  }
  // The handler is gone and the stream still the caller's, open, with the
  // message's printout in it.
  ASSERT_EQ(std::fflush(stream.Get()), 0);
  EXPECT_EQ(stream.Flushed(), trace + kPrintout);
  KelMsgPrintingHandler(nullptr).HandleMessage(msg, "42");  // silenced, and no crash
}

// No communicator of this process has this identifier, so every forward
// fails and the echo is all that is left to see: once, when switched on with
// a stream, and never flushed by the handler.
TEST(KelMsgFwdHandlerTest, EchoesOnlyWhenSwitchedOnWithAStreamAndNeverClosesIt) {
  constexpr int kNoCommunicator = 987654;
  MemoryStream stream;
  const KelMsgFileTransferType msg;
  auto handler = std::make_unique<KelMsgFwdHandler>(KelString("sink"), kNoCommunicator);
  const std::pair<bool, FILE*> echoes[] = {
      {true, nullptr}, {false, stream.Get()}, {true, stream.Get()}};
  for (const auto& [echo, out] : echoes) {
    handler->SetEcho(echo, out);
    handler->HandleMessage(msg, "origin");
  }
  EXPECT_EQ(stream.Flushed(), "");
  handler.reset();
  ASSERT_EQ(std::fflush(stream.Get()), 0);
  EXPECT_EQ(stream.Flushed(), kPrintout);
}

using Handler = KelMsgSimpleDisconnectHandler;

constexpr char kConfirmExit[] = "Exit Handler -- confirm exit\n";

std::string Trace(int pid, const char* app, const char* host, const char* user) {
  return "in disconnection handler, process " + std::to_string(pid) + " -- app -- " + app +
         " -- host " + host + " -- user " + user + "\n";
}

// Reports a departure to a handler that ends the wait; true when it matched.
// Every report is traced, a match is confirmed too and sets the flag to 0;
// nothing else touches the flag.
bool Matches(Handler& handler, int pid, const char* app, const char* host,
             const char* user = "alice") {
  handler.EndingCondition() = 5;
  ::testing::internal::CaptureStderr();
  handler.DetectDisconnection(pid, app, host, user);
  const std::string written = ::testing::internal::GetCapturedStderr();
  const bool matched = handler.EndingCondition() == 0;
  EXPECT_TRUE(matched || handler.EndingCondition() == 5);
  EXPECT_EQ(written, Trace(pid, app, host, user) + (matched ? kConfirmExit : ""));
  return matched;
}

TEST(KelMsgSimpleDisconnectHandlerTest, MatchesTheExactNameOrThePidWithTheHostInAnyCase) {
  Handler handler;
  handler.SetDisconnectBehavior(static_cast<Handler::e_behavior>(7));  // any non-zero value
  for (const int pid : {0, -1, 1, INT_MAX, -INT_MAX})
    EXPECT_FALSE(Matches(handler, pid, "someone", "")) << "a fresh handler watches no pid";
  handler.SetWatchApplication("Mesher", 99, nullptr);
  EXPECT_FALSE(Matches(handler, 99, "other", "node7"));
  EXPECT_TRUE(Matches(handler, 99, "other", "")) << "a fresh handler's host is empty";
  handler.SetWatchApplication("Solver", 4711, "node7");
  const struct {
    int pid;
    const char* app;
    const char* host;
    const char* user;  // never compared
    bool matches;
  } cases[] = {
      {1, "Solver", "elsewhere", "alice", true}, {4711, "Solver", "node8", "root", true},
      {1, "solver", "node7", "alice", false},    {1, "Solver2", "node7", "alice", false},
      {4711, "solver", "node7", "", true},       {4711, "other", "NoDe7", "alice", true},
      {4711, "other", "node8", "alice", false},  {4712, "other", "node7", "alice", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Matches(handler, c.pid, c.app, c.host, c.user), c.matches)
        << c.pid << " " << c.app << " " << c.host;
  }
  handler.SetWatchApplication("Mesher", 99, nullptr);  // keeps the host
  EXPECT_TRUE(Matches(handler, 99, "other", "NODE7"));
  EXPECT_FALSE(Matches(handler, 4711, "Solver", "node7")) << "only the last name and pid count";
}

TEST(KelMsgSimpleDisconnectHandlerDeathTest, ByDefaultAMatchExitsWithStatusZero) {
  Handler handler;
  handler.SetWatchApplication("Solver", 4711, "node7");
  EXPECT_EXIT(handler.DetectDisconnection(4711, "x", "NODE7", "alice"),
              ::testing::ExitedWithCode(0),
              "^" + Trace(4711, "x", "NODE7", "alice") + kConfirmExit + "$");
  // Made fully buffered, standard error shows whether the handler flushes
  // each trace line itself, as a process that dies right after needs.
  EXPECT_EXIT(
      {
        std::setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
        handler.DetectDisconnection(1, "other", "host", "user");
        std::_Exit(3);
      },
      ::testing::ExitedWithCode(3), "^" + Trace(1, "other", "host", "user") + "$");
}

}  // namespace
