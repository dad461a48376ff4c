#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>

#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <gtest/gtest.h>

#include "PipeStream.h"

namespace {

// No communicator of this process has this identifier, so every forward
// fails and the echo is all that is left to see.  Relaying itself is
// KelMsgHandlersBusTest's.
constexpr int kNoCommunicator = 987654;

TEST(KelMsgFwdHandlerTest, EchoesOnlyWhenSwitchedOnWithAStreamAndNeverClosesIt) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  const KelMsgFileTransferType msg;
  auto handler = std::make_unique<KelMsgFwdHandler>(KelString("sink"), kNoCommunicator);
  const auto echoOf = [&] {
    handler->HandleMessage(msg, "origin");
    std::fflush(pipe.Stream());
    return pipe.Flushed();
  };
  EXPECT_EQ(echoOf(), "") << "the echo starts switched off";
  const struct {
    bool echo;
    FILE* stream;
    const char* expected;
  } cases[] = {
      {true, nullptr, ""},
      {false, pipe.Stream(), ""},
      {true, pipe.Stream(), "Message Type: KelMsgFileTransferType\n   DataType: 0\n"},
      {false, pipe.Stream(), ""},
  };
  for (const auto& c : cases) {
    handler->SetEcho(c.echo, c.stream);
    EXPECT_EQ(echoOf(), c.expected) << c.echo << " " << c.stream;
  }
  handler->SetEcho(true, pipe.Stream());
  handler.reset();
  EXPECT_GT(std::fputs("still open\n", pipe.Stream()), 0);
  std::fflush(pipe.Stream());
  EXPECT_EQ(pipe.Flushed(), "still open\n");
}

}  // namespace
