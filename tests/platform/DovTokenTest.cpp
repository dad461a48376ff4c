#include <KelMsgFeaMessaging/DovToken.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

// Every token of `text`, up to the first empty one.
std::vector<std::string> Tokens(const char* text, const char* separators) {
  DovToken tokens(DovUnicodeString(text), 0);
  const DovUnicodeString separatorSet(separators);
  std::vector<std::string> result;
  for (DovUnicodeString token = tokens.GetNextToken(separatorSet, nullptr);
       token.GetLengthInChar() != 0; token = tokens.GetNextToken(separatorSet, nullptr)) {
    result.emplace_back(token.ConvertToChar());
  }
  return result;
}

using Strings = std::vector<std::string>;

TEST(DovTokenTest, SplitsAtEverySeparatorCharacter) {
  EXPECT_EQ(Tokens("500-510,600", ",-"), (Strings{"500", "510", "600"}));
  EXPECT_EQ(Tokens("500-510,600", ","), (Strings{"500-510", "600"}));
  EXPECT_EQ(Tokens("no separator here", ","), (Strings{"no separator here"}));
}

TEST(DovTokenTest, RunsOfSeparatorsYieldNoEmptyToken) {
  EXPECT_EQ(Tokens("500,,600", ","), (Strings{"500", "600"}));
  EXPECT_EQ(Tokens(",,500,", ","), (Strings{"500"}));
  EXPECT_EQ(Tokens("-3", "-"), (Strings{"3"}));
  EXPECT_EQ(Tokens(",,,", ","), Strings{});
  EXPECT_EQ(Tokens("", ","), Strings{});
}

TEST(DovTokenTest, StaysEmptyOnceTheTextIsUsedUp) {
  DovToken tokens(DovUnicodeString("a,b"), 0);
  const DovUnicodeString comma(",");
  EXPECT_STREQ(tokens.GetNextToken(comma, nullptr).ConvertToChar(), "a");
  EXPECT_STREQ(tokens.GetNextToken(comma, nullptr).ConvertToChar(), "b");
  EXPECT_EQ(tokens.GetNextToken(comma, nullptr).GetLengthInChar(), 0);
  EXPECT_EQ(tokens.GetNextToken(comma, nullptr).GetLengthInChar(), 0);
}

TEST(DovTokenTest, ReportsTheSeparatorThatEndedTheToken) {
  DovToken tokens(DovUnicodeString("1-2,3"), 0);
  const DovUnicodeString separators(",-");
  DovUnicodeString found("stale");
  EXPECT_STREQ(tokens.GetNextToken(separators, &found).ConvertToChar(), "1");
  EXPECT_STREQ(found.ConvertToChar(), "-");
  EXPECT_STREQ(tokens.GetNextToken(separators, &found).ConvertToChar(), "2");
  EXPECT_STREQ(found.ConvertToChar(), ",");
  EXPECT_STREQ(tokens.GetNextToken(separators, &found).ConvertToChar(), "3");
  EXPECT_STREQ(found.ConvertToChar(), "");
}

TEST(DovTokenTest, SeparatorsAreWholeUtf8Characters) {
  // U+00E9 is C3 A9 and U+00E8 is C3 A8: a byte-wise split at é would also
  // cut è apart.
  EXPECT_EQ(Tokens("1\xC3\xA9"
                   "2\xC3\xA8"
                   "3",
                   "\xC3\xA9"),
            (Strings{"1",
                     "2\xC3\xA8"
                     "3"}));
  EXPECT_EQ(Tokens("a\xC3\xA9,b", ",\xC3\xA9"), (Strings{"a", "b"}));
}

TEST(DovTokenTest, TokensOwnTheirText) {
  DovUnicodeString token;
  {
    DovToken tokens(DovUnicodeString("first,second"), 0);
    token = tokens.GetNextToken(DovUnicodeString(","), nullptr);
  }
  EXPECT_STREQ(token.ConvertToChar(), "first");
  EXPECT_EQ(token.GetLengthInChar(), 5);
}

TEST(DovTokenDeathTest, OnlyModeZeroExists) {
  EXPECT_DEATH(DovToken(DovUnicodeString("a"), 1), "AssertionFailed:mode == 0");
}

}  // namespace
