#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "KelMsgCheck.h"
#include "PayloadTestSupport.h"

namespace {

Bytes AsBytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

TEST(KelMsgStringTypeTest, StreamsExactlyTheLentBytesAsTheyAreAtSendTime) {
  char lent[] = "abc\0def";
  KelMsgStringType msg;
  msg.SetData(lent, 7);
  EXPECT_STREQ(msg.Type(), "KelMsgStringType");
  EXPECT_EQ(msg.RequiredBufferSize(), 7);
  EXPECT_EQ(StreamToBytes(msg), AsBytes(std::string("abc\0def", 7)));

  lent[0] = 'X';
  EXPECT_EQ(StreamToBytes(msg), AsBytes(std::string("Xbc\0def", 7)))
      << "lent bytes are read when streaming, not copied at SetData";
}

TEST(KelMsgStringTypeTest, StreamWritesNothingBeyondThePayload) {
  KelMsgStringType msg;
  msg.SetData("xy", 2);
  Bytes buffer(5, 0xEE);
  msg.Stream(buffer.data(), static_cast<int>(buffer.size()));
  EXPECT_EQ(buffer, Hex({'x', 'y', 0xEE, 0xEE, 0xEE}));
}

TEST(KelMsgStringTypeTest, UnstreamKeepsItsOwnCopyAndRoundTrips) {
  Bytes payload =
      AsBytes(std::string("\0raw\xFF"
                          "bytes",
                          10));
  KelMsgStringType received;
  EXPECT_FALSE(UnstreamIsRefused(received, payload));
  const Bytes original = payload;
  payload.assign(payload.size(), 0);
  EXPECT_EQ(StreamToBytes(received), original);
}

TEST(KelMsgStringTypeTest, EmptyPayloadGivesAnEmptyOwningMessage) {
  KelMsgStringType received;
  EXPECT_FALSE(UnstreamIsRefused(received, Bytes()));
  EXPECT_EQ(received.RequiredBufferSize(), 0);
  Bytes buffer(3, 0xEE);
  received.Stream(buffer.data(), 0);
  EXPECT_EQ(buffer, Hex({0xEE, 0xEE, 0xEE}));
}

TEST(KelMsgStringTypeTest, ReplacingHeldBytesFreesTheOwnedOnes) {
  // The leak checker of the sanitizer build sees a leaked first copy.
  KelMsgStringType msg;
  ASSERT_FALSE(UnstreamIsRefused(msg, AsBytes("first")));
  ASSERT_FALSE(UnstreamIsRefused(msg, AsBytes("second")));
  EXPECT_EQ(StreamToBytes(msg), AsBytes("second"));
  msg.SetData("lent", 4);
  EXPECT_EQ(StreamToBytes(msg), AsBytes("lent"));
}

TEST(KelMsgStringTypeTest, NegativeSizeIsRefused) {
  FatalErrorCapture capture;
  KelMsgStringType msg;
  msg.SetData("kept", 4);
  KelMsgClearRefusal();
  msg.Unstream("abc", -1);
  EXPECT_TRUE(KelMsgWasRefused());
  EXPECT_EQ(capture.Messages(), std::vector<std::string>{"AssertionFailed:byteCount >= 0"});
  EXPECT_EQ(StreamToBytes(msg), AsBytes("kept"));
}

TEST(KelMsgStringTypeTest, CloneIsAnEmptyMessageOfTheSameType) {
  KelMsgStringType received;
  ASSERT_FALSE(UnstreamIsRefused(received, AsBytes("payload")));
  const std::unique_ptr<KelMsgBBMessage> clone(received.Clone());
  EXPECT_STREQ(clone->Type(), "KelMsgStringType");
  EXPECT_NE(dynamic_cast<KelMsgStringType*>(clone.get()), nullptr);
  EXPECT_EQ(clone->RequiredBufferSize(), 0);
}

TEST(KelMsgStringTypeTest, PrintShowsSizeFirstAndLastByteAndFlushes) {
  KelMsgStringType msg;
  msg.SetData("hello", 5);
  MemoryStream out;
  msg.Print(out.Get(), "> ");
  EXPECT_EQ(out.Flushed(),
            "> Message Type: KelMsgStringType\n"
            ">    size: 5\n"
            ">    data[0]: h\n"
            ">    data[4]: o\n");
}

TEST(KelMsgStringTypeTest, PrintOfOneByteShowsIndexZeroTwice) {
  KelMsgStringType msg;
  msg.SetData("z", 1);
  MemoryStream out;
  msg.Print(out.Get(), nullptr);
  EXPECT_EQ(out.Flushed(),
            "Message Type: KelMsgStringType\n"
            "   size: 1\n"
            "   data[0]: z\n"
            "   data[0]: z\n");
}

TEST(KelMsgStringTypeTest, PrintWithoutBytesStopsAfterTheSize) {
  KelMsgStringType empty;
  KelMsgStringType received;
  ASSERT_FALSE(UnstreamIsRefused(received, Bytes()));
  for (const KelMsgStringType* msg : {&empty, &received}) {
    MemoryStream out;
    msg->Print(out.Get(), "");
    EXPECT_EQ(out.Flushed(), "Message Type: KelMsgStringType\n   size: 0\n");
  }
}

TEST(KelMsgStringTypeDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  KelMsgStringType msg;
  msg.SetData("abc", 3);
  char small[2];
  EXPECT_DEATH(msg.Stream(small, 2), "AssertionFailed:size >= RequiredBufferSize\\(\\)");
  EXPECT_DEATH(msg.SetData("abc", -1), "AssertionFailed:size >= 0");
  EXPECT_DEATH(msg.SetData(nullptr, 1), "AssertionFailed:data != nullptr \\|\\| size == 0");
}

}  // namespace
