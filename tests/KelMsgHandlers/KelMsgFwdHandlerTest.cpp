#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>

#include <fcntl.h>

#include <gtest/gtest.h>

#include "NoteMessage.h"
#include "PipeStream.h"

namespace {

// No communicator of this process has this identifier, so every forward
// fails and the echo is all that is left to see.
constexpr int kNoCommunicator = 987654;

class KelMsgFwdHandlerEchoTest : public ::testing::Test {
 protected:
  std::string EchoOf(KelMsgFwdHandler& handler) {
    const NoteMessage note("mesh ready");
    handler.HandleMessage(note, "origin");
    std::fflush(m_pipe.Stream());
    return m_pipe.Flushed();
  }

  PipeStream m_pipe;
  KelMsgFwdHandler m_handler{KelString("sink"), kNoCommunicator};
};

TEST_F(KelMsgFwdHandlerEchoTest, EchoStartsSwitchedOff) {
  ASSERT_NE(m_pipe.Stream(), nullptr);
  EXPECT_EQ(EchoOf(m_handler), "");
}

TEST_F(KelMsgFwdHandlerEchoTest, EchoPrintsTheMessageAloneEvenWhenTheForwardFails) {
  ASSERT_NE(m_pipe.Stream(), nullptr);
  m_handler.SetEcho(true, m_pipe.Stream());
  EXPECT_EQ(EchoOf(m_handler), "Message Type: NoteMessage\n  note: mesh ready\n");
}

TEST_F(KelMsgFwdHandlerEchoTest, EchoNeedsBothTheFlagAndTheStream) {
  ASSERT_NE(m_pipe.Stream(), nullptr);
  m_handler.SetEcho(true, nullptr);
  EXPECT_EQ(EchoOf(m_handler), "");
  m_handler.SetEcho(false, m_pipe.Stream());
  EXPECT_EQ(EchoOf(m_handler), "");
  m_handler.SetEcho(true, m_pipe.Stream());
  m_handler.SetEcho(false, m_pipe.Stream());
  EXPECT_EQ(EchoOf(m_handler), "") << "the echo can be switched off again";
}

TEST_F(KelMsgFwdHandlerEchoTest, DestroyingTheHandlerLeavesTheEchoStreamOpen) {
  ASSERT_NE(m_pipe.Stream(), nullptr);
  auto* handler = new KelMsgFwdHandler(KelString("sink"), kNoCommunicator);
  handler->SetEcho(true, m_pipe.Stream());
  delete handler;
  EXPECT_NE(::fcntl(::fileno(m_pipe.Stream()), F_GETFD), -1);
  EXPECT_GT(std::fprintf(m_pipe.Stream(), "still open\n"), 0);
  std::fflush(m_pipe.Stream());
  EXPECT_EQ(m_pipe.Flushed(), "still open\n");
}

}  // namespace
