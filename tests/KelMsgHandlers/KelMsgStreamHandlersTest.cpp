// What the printing and forwarding handlers write to the streams they are
// given, and when they flush it.  Relaying between processes is a fault
// scenario of its own (tests/faults).
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>

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

}  // namespace
