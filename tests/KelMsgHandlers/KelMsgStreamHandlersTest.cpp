// What the printing and forwarding handlers write to the streams they are
// given, and when they flush it.  Relaying between processes is a fault
// scenario of its own (tests/faults).
#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>
#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>

#include <memory>
#include <string>

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
// fails and the echo is all that is left to see.
constexpr int kNoCommunicator = 987654;

TEST(KelMsgFwdHandlerTest, EchoesOnlyWhenSwitchedOnWithAStreamAndNeverClosesIt) {
  MemoryStream stream;
  const KelMsgFileTransferType msg;
  auto handler = std::make_unique<KelMsgFwdHandler>(KelString("sink"), kNoCommunicator);
  const struct {
    bool set;  // false: as constructed
    bool echo;
    FILE* stream;
  } cases[] = {{false, false, nullptr},
               {true, true, nullptr},
               {true, false, stream.Get()},
               {true, true, stream.Get()},
               {true, false, stream.Get()}};
  std::string echoed;
  for (const auto& c : cases) {
    if (c.set)
      handler->SetEcho(c.echo, c.stream);
    handler->HandleMessage(msg, "origin");
    std::fflush(stream.Get());
    echoed += c.echo && c.stream != nullptr ? kPrintout : "";
    EXPECT_EQ(stream.Flushed(), echoed) << c.set << c.echo << c.stream;
  }
  handler->SetEcho(true, stream.Get());
  handler.reset();
  EXPECT_GT(std::fputs("still open\n", stream.Get()), 0);
}

}  // namespace
