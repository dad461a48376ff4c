#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>

#include <string>

#include <gtest/gtest.h>

namespace {

constexpr char kConfirmExit[] = "Exit Handler -- confirm exit\n";

std::string Trace(int pid, const char* app, const char* host, const char* user) {
  return "in disconnection handler, process " + std::to_string(pid) + " -- app -- " + app +
         " -- host " + host + " -- user " + user + "\n";
}

class KelMsgSimpleDisconnectHandlerTest : public ::testing::Test {
 protected:
  KelMsgSimpleDisconnectHandlerTest() {
    m_handler.SetWatchApplication("Solver", 4711, "node7");
    m_handler.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  }

  // True when the report ends the wait; `stderrText` receives what the
  // handler wrote.  The flag is reset for the next report.
  bool Ends(int pid, const char* app, const char* host, const char* user = "alice",
            std::string* stderrText = nullptr) {
    ::testing::internal::CaptureStderr();
    m_handler.DetectDisconnection(pid, app, host, user);
    const std::string written = ::testing::internal::GetCapturedStderr();
    if (stderrText != nullptr)
      *stderrText = written;
    const bool ended = m_handler.EndingCondition() == 0;
    m_handler.EndingCondition() = -1;
    return ended;
  }

  KelMsgSimpleDisconnectHandler m_handler;
};

TEST_F(KelMsgSimpleDisconnectHandlerTest, NameEqualByteForByteMatchesWhateverPidAndHost) {
  EXPECT_TRUE(Ends(1, "Solver", "elsewhere"));
  EXPECT_TRUE(Ends(4711, "Solver", "node8"));
  EXPECT_FALSE(Ends(1, "solver", "node7"));
  EXPECT_FALSE(Ends(1, "Solver2", "node7"));
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, PidWithHostInAnyCaseMatchesWhenTheNameDiffers) {
  EXPECT_TRUE(Ends(4711, "solver", "node7"));
  EXPECT_TRUE(Ends(4711, "other", "NODE7"));
  EXPECT_TRUE(Ends(4711, "other", "NoDe7"));
  EXPECT_FALSE(Ends(4711, "other", "node8"));
  EXPECT_FALSE(Ends(4712, "other", "node7"));

  m_handler.SetWatchApplication("Solver", 4711, "NODE7");
  EXPECT_TRUE(Ends(4711, "other", "node7"));
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, UserPlaysNoPart) {
  EXPECT_TRUE(Ends(4711, "other", "node7", "root"));
  EXPECT_TRUE(Ends(4711, "other", "node7", ""));
  EXPECT_FALSE(Ends(4712, "other", "node7", "alice"));
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, NullHostKeepsTheHostSetBefore) {
  m_handler.SetWatchApplication("Mesher", 99, nullptr);
  EXPECT_TRUE(Ends(99, "other", "node7"));
  EXPECT_FALSE(Ends(4711, "Solver", "node7")) << "the name and pid set last are the ones watched";

  KelMsgSimpleDisconnectHandler fresh;
  fresh.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  fresh.SetWatchApplication("Mesher", 99, nullptr);
  ::testing::internal::CaptureStderr();
  fresh.DetectDisconnection(99, "other", "node7", "alice");
  EXPECT_EQ(fresh.EndingCondition(), -1);
  fresh.DetectDisconnection(99, "other", "", "alice");
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(fresh.EndingCondition(), 0) << "a fresh handler's host is empty";
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, WritesTheTraceForEveryReportAndConfirmsOnlyAMatch) {
  std::string written;
  EXPECT_FALSE(Ends(12, "Mesher", "node3", "bob", &written));
  EXPECT_EQ(written, Trace(12, "Mesher", "node3", "bob"));

  EXPECT_TRUE(Ends(4711, "Solver", "node7", "alice", &written));
  EXPECT_EQ(written, Trace(4711, "Solver", "node7", "alice") + kConfirmExit);
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, EndingConditionGoesToZeroAndStaysThere) {
  int& flag = m_handler.EndingCondition();
  EXPECT_EQ(flag, -1);
  ::testing::internal::CaptureStderr();
  m_handler.DetectDisconnection(1, "Mesher", "node3", "bob");
  EXPECT_EQ(flag, -1);
  m_handler.DetectDisconnection(1, "Solver", "node3", "bob");
  EXPECT_EQ(flag, 0);
  m_handler.DetectDisconnection(1, "Solver", "node3", "bob");
  EXPECT_EQ(flag, 0);
  m_handler.DetectDisconnection(1, "Mesher", "node3", "bob");
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(&flag, &m_handler.EndingCondition());
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, AnyNonZeroBehaviourEndsTheWait) {
  m_handler.SetDisconnectBehavior(static_cast<KelMsgSimpleDisconnectHandler::e_behavior>(7));
  EXPECT_TRUE(Ends(1, "Solver", "node3"));
}

TEST_F(KelMsgSimpleDisconnectHandlerTest, NoPidMatchesBeforeOneIsSet) {
  KelMsgSimpleDisconnectHandler fresh;
  fresh.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  ::testing::internal::CaptureStderr();
  for (int pid : {0, -1, 1, 2147483647, -2147483647}) {
    fresh.DetectDisconnection(pid, "someone", "", "alice");
  }
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(fresh.EndingCondition(), -1);
}

TEST(KelMsgSimpleDisconnectHandlerDeathTest, DefaultBehaviourExitsWithStatusZero) {
  KelMsgSimpleDisconnectHandler handler;
  handler.SetWatchApplication("Solver", 4711, "node7");
  EXPECT_EXIT(handler.DetectDisconnection(4711, "x", "NODE7", "alice"),
              ::testing::ExitedWithCode(0),
              "^in disconnection handler, process 4711 -- app -- x -- host NODE7 -- user alice\n"
              "Exit Handler -- confirm exit\n$");
}

}  // namespace
