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

TEST(KelMsgStringTypeTest, StreamsTheLentBytesAsTheyAreAtSendTimeAndNothingMore) {
  char lent[] = "abc\0def";
  KelMsgStringType msg;
  msg.SetData(lent, 7);
  EXPECT_STREQ(msg.Type(), "KelMsgStringType");
  EXPECT_EQ(msg.RequiredBufferSize(), 7);
  lent[0] = 'X';  // lent bytes are read when streaming, not copied at SetData
  Bytes buffer(9, 0xEE);
  msg.Stream(buffer.data(), static_cast<int>(buffer.size()));
  EXPECT_EQ(buffer, Hex({'X', 'b', 'c', 0, 'd', 'e', 'f', 0xEE, 0xEE}));
}

// Each payload lives only during Unstream (the sanitizer sees a message that
// keeps pointing into it) and each owned copy is freed when replaced (the
// leak checker sees one that is not).
TEST(KelMsgStringTypeTest, ReceivedBytesAreOwnedCopiesThatReplaceEachOther) {
  KelMsgStringType msg;
  for (const std::string& text : {std::string("\0raw\xFF", 5), std::string(), std::string("2nd")}) {
    ASSERT_FALSE(UnstreamIsRefused(msg, AsBytes(text)));
    EXPECT_EQ(StreamToBytes(msg), AsBytes(text));
  }
  msg.SetData("lent", 4);
  EXPECT_EQ(StreamToBytes(msg), AsBytes("lent"));

  FatalErrorCapture capture;
  KelMsgClearRefusal();
  msg.Unstream("abc", -1);
  EXPECT_TRUE(KelMsgWasRefused());
  EXPECT_EQ(capture.Messages(), std::vector<std::string>{"AssertionFailed:byteCount >= 0"});
  EXPECT_EQ(StreamToBytes(msg), AsBytes("lent"));

  const std::unique_ptr<KelMsgBBMessage> clone(msg.Clone());
  EXPECT_STREQ(clone->Type(), "KelMsgStringType");
  EXPECT_EQ(clone->RequiredBufferSize(), 0) << "a clone is empty";
}

TEST(KelMsgStringTypeTest, PrintShowsSizeFirstAndLastByteAndFlushes) {
  struct Case {
    const char* data;
    int size;
    const char* prefix;
    const char* expected;
  };
  const Case cases[] = {
      {"hello", 5, "> ",
       "> Message Type: KelMsgStringType\n>    size: 5\n>    data[0]: h\n>    data[4]: o\n"},
      {"z", 1, nullptr,
       "Message Type: KelMsgStringType\n   size: 1\n   data[0]: z\n   data[0]: z\n"},
      {nullptr, 0, "", "Message Type: KelMsgStringType\n   size: 0\n"},
  };
  for (const Case& c : cases) {
    KelMsgStringType msg;
    msg.SetData(c.data, c.size);
    MemoryStream out;
    msg.Print(out.Get(), c.prefix);
    EXPECT_EQ(out.Flushed(), c.expected);
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
