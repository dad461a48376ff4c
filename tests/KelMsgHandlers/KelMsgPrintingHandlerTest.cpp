#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>

#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <gtest/gtest.h>

#include "PipeStream.h"

namespace {

// The message prints without flushing, so the pipe shows exactly what the
// handler flushed: the trace line, before the message printed anything.
TEST(KelMsgPrintingHandlerTest, FlushesTheTraceLineBeforeTheMessagePrints) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  const KelMsgFileTransferType msg;
  {
    KelMsgPrintingHandler handler(pipe.Stream());
    handler.HandleMessage(msg, "caf\xC3\xA9");
    EXPECT_EQ(pipe.Flushed(), "KelMsgPrintingHandler::HandleMessage -- id caf\xC3\xA9\n");
  }
  // The handler is gone and the stream still the caller's, open, with the
  // message's printout in it.
  ASSERT_EQ(std::fflush(pipe.Stream()), 0);
  EXPECT_EQ(pipe.Flushed(), "Message Type: KelMsgFileTransferType\n   DataType: 0\n");

  KelMsgPrintingHandler(nullptr).HandleMessage(msg, "42");  // silenced, and no crash
}

}  // namespace
