#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

const char* Chars(const Bytes& bytes) {
  return reinterpret_cast<const char*>(bytes.data());
}

TEST(KelMsgStreamUtilsTest, WritesCountedStringsAtTheOffsetAndMovesIt) {
  Bytes buffer(20);
  std::vector<int> ends;
  int offset = 0;
  for (const char* text : {"solver", "", "\xC3\xA9"}) {
    KelMsgStreamUtils::StreamKelString(KelString(text), reinterpret_cast<char*>(buffer.data()),
                                       offset);
    ends.push_back(offset);
  }
  EXPECT_EQ(ends, (std::vector<int>{10, 14, 20}));
  EXPECT_EQ(buffer, PayloadBuilder().Counted("solver").Counted("").Counted("\xC3\xA9").Get());
}

// Counts are in bytes; a NUL ends the text but not the field.  Both readers
// take the fields in turn and end where each ends.
TEST(KelMsgStreamUtilsTest, ReadsCountedStringsFromTheOffsetAndMovesIt) {
  const Bytes payload = PayloadBuilder()
                            .Counted("solver")
                            .Counted(std::string("ab\0cd", 5))
                            .Counted("\xC3\xA9")
                            .Get();
  const char* texts[] = {"solver", "ab", "\xC3\xA9"};
  const int ends[] = {10, 19, 25};
  int unbounded = 0;
  int bounded = 0;
  for (std::size_t i = 0; i < 3; ++i) {
    KelString first("old"), second("old");
    KelMsgStreamUtils::UnstreamKelString(first, Chars(payload), unbounded);
    EXPECT_TRUE(KelMsgStreamUtils::UnstreamKelString(second, Chars(payload), 25, bounded));
    EXPECT_STREQ(first.GetUTF8(), texts[i]);
    EXPECT_STREQ(second.GetUTF8(), texts[i]);
    EXPECT_EQ(unbounded, ends[i]);
    EXPECT_EQ(bounded, ends[i]);
  }
}

TEST(KelMsgStreamUtilsTest, BoundedReadRefusesBadCountsAndLeavesItsOutputsAlone) {
  const char* const kTooLong = "AssertionFailed:byteCount <= bytesLeft";
  const std::pair<Bytes, const char*> cases[] = {
      {PayloadBuilder().Int32(-1).Raw("abc").Get(), "AssertionFailed:byteCount >= 0"},
      {PayloadBuilder().Int32(4).Raw("abc").Get(), kTooLong},
      {Hex({3, 0, 0}), kTooLong},
  };
  for (const auto& [payload, report] : cases) {
    FatalErrorCapture capture;
    // An exact copy, so that a read past the end is caught.
    const std::unique_ptr<char[]> exact(new char[payload.size()]);
    std::copy(payload.begin(), payload.end(), exact.get());
    KelString target("kept");
    int offset = 0;
    EXPECT_FALSE(KelMsgStreamUtils::UnstreamKelString(target, exact.get(),
                                                      static_cast<int>(payload.size()), offset));
    EXPECT_STREQ(target.GetUTF8(), "kept");
    EXPECT_EQ(offset, 0);
    ASSERT_EQ(capture.Reports().size(), 1U);
    EXPECT_EQ(capture.Reports()[0].message, report);
    EXPECT_EQ(capture.Reports()[0].path,
              "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgPayloadReader");
  }
}

TEST(KelMsgStreamUtilsDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const Bytes negative = PayloadBuilder().Int32(-2).Get();
  KelString target;
  int offset = 0;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(target, Chars(negative), offset),
               "AssertionFailed:count >= 0");
  offset = 5;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(target, Chars(negative), 4, offset),
               "AssertionFailed:0 <= offset && offset <= size");
}

}  // namespace
