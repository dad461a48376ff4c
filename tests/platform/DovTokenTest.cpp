#include <KelMsgFeaMessaging/DovToken.h>

#include <utility>

#include <gtest/gtest.h>

namespace {

// Splitting ASCII port lists is KelMsgPortFinderParseTest's.
TEST(DovTokenTest, SplitsAtWholeCharactersSkippingRunsAndReportsEachSeparator) {
  // U+00E9 is C3 A9 and U+00E8 is C3 A8: a byte-wise split at é would also
  // cut è apart.
  DovToken tokens(DovUnicodeString(",,1\xC3\xA9"
                                   "2\xC3\xA8,,3"),
                  0);
  const DovUnicodeString separators(",\xC3\xA9");
  DovUnicodeString found("stale");
  const std::pair<const char*, const char*> expected[] = {
      {"1", "\xC3\xA9"}, {"2\xC3\xA8", ","}, {"3", ""}, {"", ""}, {"", ""}};
  for (const auto& [token, separator] : expected) {
    EXPECT_STREQ(tokens.GetNextToken(separators, &found).ConvertToChar(), token);
    EXPECT_STREQ(found.ConvertToChar(), separator);
  }
}

TEST(DovTokenDeathTest, OnlyModeZeroExists) {
  EXPECT_DEATH(DovToken(DovUnicodeString("a"), 1), "AssertionFailed:mode == 0");
}

}  // namespace
