#include <KelMsgFeaMessaging/KelMsgPrintingHandler.h>

#include <fcntl.h>

#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <gtest/gtest.h>

#include "NoteMessage.h"
#include "PipeStream.h"

namespace {

constexpr char kTraceFor42[] = "KelMsgPrintingHandler::HandleMessage -- id 42\n";

TEST(KelMsgPrintingHandlerTest, NullStreamPrintsNothing) {
  KelMsgPrintingHandler handler(nullptr);
  const NoteMessage note("hello");
  handler.HandleMessage(note, "42");
  EXPECT_EQ(note.Prints(), 0);
  EXPECT_EQ(note.Text(), "hello");
}

TEST(KelMsgPrintingHandlerTest, WritesTheTraceLineThenTheMessagesPrintout) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  KelMsgPrintingHandler handler(pipe.Stream());
  const NoteMessage note("hello");
  handler.HandleMessage(note, "42");
  std::fflush(pipe.Stream());
  EXPECT_EQ(pipe.Flushed(),
            std::string(kTraceFor42) + "Message Type: NoteMessage\n  note: hello\n");
  EXPECT_EQ(note.Prints(), 1);

  handler.HandleMessage(note, "");
  handler.HandleMessage(note, "caf\xC3\xA9");
  std::fflush(pipe.Stream());
  EXPECT_EQ(pipe.Flushed(),
            "KelMsgPrintingHandler::HandleMessage -- id \n"
            "Message Type: NoteMessage\n  note: hello\n"
            "KelMsgPrintingHandler::HandleMessage -- id caf\xC3\xA9\n"
            "Message Type: NoteMessage\n  note: hello\n");
}

TEST(KelMsgPrintingHandlerTest, TraceLineIsFlushedBeforeTheMessagePrints) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  KelMsgPrintingHandler handler(pipe.Stream());
  NoteMessage note("hello");
  std::vector<std::string> seenWhenPrintStarted;
  note.WatchPrint([&](FILE* stream) {
    EXPECT_EQ(stream, pipe.Stream());
    seenWhenPrintStarted.push_back(pipe.Flushed());
  });
  handler.HandleMessage(note, "42");
  ASSERT_EQ(seenWhenPrintStarted.size(), 1U);
  EXPECT_EQ(seenWhenPrintStarted[0], kTraceFor42);
}

TEST(KelMsgPrintingHandlerTest, DestroyingTheHandlerLeavesTheStreamOpen) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  delete new KelMsgPrintingHandler(pipe.Stream());
  EXPECT_NE(::fcntl(::fileno(pipe.Stream()), F_GETFD), -1);
  EXPECT_GT(std::fprintf(pipe.Stream(), "still open\n"), 0);
  std::fflush(pipe.Stream());
  EXPECT_EQ(pipe.Flushed(), "still open\n");
}

// The handler as the registry calls it: with the clone rebuilt from the
// payload and the identifier from the envelope.
TEST(KelMsgPrintingHandlerTest, PrintsWhatTheRegistryDispatches) {
  PipeStream pipe;
  ASSERT_NE(pipe.Stream(), nullptr);
  KelMsgBBCallbackManager registry;
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new NoteMessage,
                                                    new KelMsgPrintingHandler(pipe.Stream()));
  KelMsgBBCallbackManager::SetMessageID("mesher");
  const NoteMessage sent("mesh ready");
  KelMsgBBCallbackManager::AppendMessageToSend(&sent);
  std::vector<char> buffer(
      static_cast<std::size_t>(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage()));
  KelMsgBBCallbackManager::StreamPendingMessage(buffer.data(), static_cast<int>(buffer.size()));
  KelMsgBBCallbackManager::SetMessageID("");

  KelMsgBBCallbackManager::HandleMessage(NoteMessage::kType, buffer.data(),
                                         static_cast<int>(buffer.size()));
  std::fflush(pipe.Stream());
  EXPECT_EQ(pipe.Flushed(),
            "KelMsgPrintingHandler::HandleMessage -- id mesher\n"
            "Message Type: NoteMessage\n  note: mesh ready\n");
}

}  // namespace
