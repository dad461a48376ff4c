#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>

#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

constexpr char kReaderPath[] = "KelMsgFeaMessaging/platform/KelMsgPayloadReader";

Bytes StreamOne(const KelString& text, int& offset) {
  Bytes buffer(static_cast<std::size_t>(4 + text.GetLengthInByte()));
  offset = 0;
  KelMsgStreamUtils::StreamKelString(text, reinterpret_cast<char*>(buffer.data()), offset);
  return buffer;
}

TEST(KelMsgStreamUtilsTest, EmptyStringIsFourZeroBytesBothWays) {
  int written = 0;
  const Bytes bytes = StreamOne(KelString(""), written);
  EXPECT_EQ(bytes, Hex({0, 0, 0, 0}));
  EXPECT_EQ(written, 4);

  KelString target("old value");
  int read = 0;
  KelMsgStreamUtils::UnstreamKelString(target, reinterpret_cast<const char*>(bytes.data()), read);
  EXPECT_STREQ(target.GetUTF8(), "");
  EXPECT_EQ(read, 4);
}

TEST(KelMsgStreamUtilsTest, CountIsInBytesNotCharacters) {
  int written = 0;
  EXPECT_EQ(StreamOne(KelString("\xC3\xA9"), written), Hex({0x02, 0, 0, 0, 0xC3, 0xA9}));
  EXPECT_EQ(written, 6);

  const KelString text(
      "Gr\xC3\xB6\xC3\x9F"
      "e \xE2\x82\xAC \xF0\x9F\x93\x84");  // Größe € 📄
  const Bytes bytes = StreamOne(text, written);
  EXPECT_EQ(bytes[0], 16);
  KelString back;
  int read = 0;
  KelMsgStreamUtils::UnstreamKelString(back, reinterpret_cast<const char*>(bytes.data()), read);
  EXPECT_TRUE(back == text);
  EXPECT_EQ(read, written);
}

TEST(KelMsgStreamUtilsTest, StringsReadBackInOrderAtTheWritersOffsets) {
  const KelString first("solver"), second(""), third("job\xE2\x82\xAC");
  char buffer[64];
  int offset = 0;
  std::vector<int> writerOffsets;
  for (const KelString* text : {&first, &second, &third}) {
    KelMsgStreamUtils::StreamKelString(*text, buffer, offset);
    writerOffsets.push_back(offset);
  }
  EXPECT_EQ(writerOffsets, (std::vector<int>{10, 14, 24}));

  KelString back[3];
  offset = 0;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(
        KelMsgStreamUtils::UnstreamKelString(back[i], buffer, writerOffsets.back(), offset));
    EXPECT_EQ(offset, writerOffsets[static_cast<std::size_t>(i)]);
  }
  EXPECT_TRUE(back[0] == first);
  EXPECT_TRUE(back[1] == second);
  EXPECT_TRUE(back[2] == third);
}

TEST(KelMsgStreamUtilsTest, NulInsideCountedBytesEndsTheTextButNotTheField) {
  const Bytes payload = PayloadBuilder().Counted(std::string("ab\0cd", 5)).Counted("next").Get();
  const auto* bytes = reinterpret_cast<const char*>(payload.data());
  const int size = static_cast<int>(payload.size());
  for (const bool bounded : {false, true}) {
    KelString head, next;
    int offset = 0;
    if (bounded) {
      ASSERT_TRUE(KelMsgStreamUtils::UnstreamKelString(head, bytes, size, offset));
      ASSERT_TRUE(KelMsgStreamUtils::UnstreamKelString(next, bytes, size, offset));
    } else {
      KelMsgStreamUtils::UnstreamKelString(head, bytes, offset);
      KelMsgStreamUtils::UnstreamKelString(next, bytes, offset);
    }
    EXPECT_STREQ(head.GetUTF8(), "ab");
    EXPECT_STREQ(next.GetUTF8(), "next");
    EXPECT_EQ(offset, size);
  }
}

TEST(KelMsgStreamUtilsTest, BoundedReadRefusesBadCountsAndLeavesItsOutputsAlone) {
  struct Case {
    Bytes payload;
    const char* report;
  };
  const Case cases[] = {
      {PayloadBuilder().Int32(-1).Raw("abc").Get(), "AssertionFailed:byteCount >= 0"},
      {PayloadBuilder().Int32(INT_MIN).Get(), "AssertionFailed:byteCount >= 0"},
      {PayloadBuilder().Int32(4).Raw("abc").Get(), "AssertionFailed:byteCount <= bytesLeft"},
      {PayloadBuilder().Int32(INT_MAX).Raw("abc").Get(), "AssertionFailed:byteCount <= bytesLeft"},
      {Hex({3, 0, 0}), "AssertionFailed:byteCount <= bytesLeft"},
      {Bytes(), "AssertionFailed:byteCount <= bytesLeft"},
  };
  for (const Case& c : cases) {
    FatalErrorCapture capture;
    // An exact copy, so that a read past the end is caught.
    const std::unique_ptr<char[]> exact(new char[c.payload.size()]);
    std::copy(c.payload.begin(), c.payload.end(), exact.get());
    KelString target("kept");
    int offset = 0;
    EXPECT_FALSE(KelMsgStreamUtils::UnstreamKelString(target, exact.get(),
                                                      static_cast<int>(c.payload.size()), offset));
    EXPECT_STREQ(target.GetUTF8(), "kept");
    EXPECT_EQ(offset, 0);
    ASSERT_EQ(capture.Reports().size(), 1U);
    EXPECT_EQ(capture.Reports()[0].message, c.report);
    EXPECT_EQ(capture.Reports()[0].path, kReaderPath);
  }
}

TEST(KelMsgStreamUtilsTest, BoundedReadStartsAtTheGivenOffset) {
  const Bytes payload = PayloadBuilder().Raw("xx").Counted("tail").Get();
  KelString target;
  int offset = 2;
  EXPECT_TRUE(KelMsgStreamUtils::UnstreamKelString(target,
                                                   reinterpret_cast<const char*>(payload.data()),
                                                   static_cast<int>(payload.size()), offset));
  EXPECT_STREQ(target.GetUTF8(), "tail");
  EXPECT_EQ(offset, 10);
}

TEST(KelMsgStreamUtilsDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Bytes negative = PayloadBuilder().Int32(-2).Get();
  KelString target;
  int offset = 0;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(
                   target, reinterpret_cast<const char*>(negative.data()), offset),
               "AssertionFailed:count >= 0");
  offset = 5;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(
                   target, reinterpret_cast<const char*>(negative.data()), 4, offset),
               "AssertionFailed:0 <= offset && offset <= size");
}

}  // namespace
