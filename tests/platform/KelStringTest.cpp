#include <KelMsgFeaMessaging/KelString.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(KelStringTest, NoTextReadsAsEmpty) {
  for (const KelString& s : {KelString(), KelString(nullptr)}) {
    EXPECT_FALSE(s.HasText());
    EXPECT_STREQ(s.GetUTF8(), "");
    EXPECT_TRUE(s == KelString(""));
  }
  EXPECT_TRUE(KelString("").HasText());
}

TEST(KelStringTest, LengthsCountBytesAndCharactersAndByteRunsStopAtANul) {
  const KelString s("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");  // a, é, €, 😀
  EXPECT_EQ(s.GetLengthInByte(), 10);
  EXPECT_EQ(s.GetLengthInChar(), 4);
  const KelString run(std::string("ab\0cd", 5).data(), 5);
  EXPECT_EQ(run.GetLengthInByte(), 2);
  EXPECT_STREQ(run.GetUTF8(), "ab");
  EXPECT_EQ(KelString("abc", 0).GetLengthInByte(), 0);
}

TEST(KelStringTest, WritesNeverShowThroughCopies) {
  KelString original("node7");
  const KelString copy = original;
  EXPECT_EQ(copy.GetUTF8(), original.GetUTF8()) << "copies share the text";

  original.ASCIIToUpper();
  EXPECT_STREQ(original.GetUTF8(), "NODE7");
  KelString appended = copy;
  appended.Append(KelString(".stamp"));
  EXPECT_STREQ(appended.GetUTF8(), "node7.stamp");
  KelString rebuilt = copy;
  rebuilt.BuildFromUTF8(rebuilt.GetUTF8() + 1);  // from its own text
  EXPECT_STREQ(rebuilt.GetUTF8(), "ode7");
  EXPECT_STREQ(copy.GetUTF8(), "node7");

  KelString mixed("h\xC3\xA9llo-z{");
  mixed.ASCIIToUpper();
  EXPECT_STREQ(mixed.GetUTF8(), "H\xC3\xA9LLO-Z{") << "only ASCII letters change";
}

TEST(KelStringTest, ConvertToUTF8CountsCharactersAndKeepsWholeCharacters) {
  const KelString s("\xC3\xA9t\xC3\xA9");  // été
  char buffer[16];
  unsigned count = sizeof buffer;
  s.ConvertToUTF8(buffer, &count);
  EXPECT_EQ(count, 3U);
  EXPECT_STREQ(buffer, "\xC3\xA9t\xC3\xA9");

  char small[4];
  count = sizeof small;
  s.ConvertToUTF8(small, &count);
  EXPECT_EQ(count, 2U) << "the second é does not fit whole";
  EXPECT_EQ(std::memcmp(small, "\xC3\xA9t", 4), 0);
}

TEST(KelStringTest, ConvertToUTF8CutsTextThatIsNotUtf8WhereGetLengthInCharDoes) {
  // A lead byte with more continuation bytes than UTF-8 allows is still one
  // character, for both operations.
  const KelString s(
      "\xF5\x9D\x9D\x9D\x9D\x9D"
      "a");
  ASSERT_EQ(s.GetLengthInChar(), 2);
  char buffer[8];
  unsigned count = sizeof buffer;
  s.ConvertToUTF8(buffer, &count);
  EXPECT_EQ(count, 2U);
  EXPECT_STREQ(buffer, s.GetUTF8());

  char small[4];
  count = sizeof small;
  s.ConvertToUTF8(small, &count);
  EXPECT_EQ(count, 0U) << "the six-byte character does not fit whole";
  EXPECT_EQ(small[0], '\0');

  // Continuation bytes that open the text belong to its first character.
  const KelString opening(
      "\x97\xF5\x9D\x9D"
      "a");
  ASSERT_EQ(opening.GetLengthInChar(), 2);
  char tiny[3];
  count = sizeof tiny;
  opening.ConvertToUTF8(tiny, &count);
  EXPECT_EQ(count, 0U) << "the first character has four bytes";
  EXPECT_EQ(tiny[0], '\0');
  count = sizeof buffer;
  opening.ConvertToUTF8(buffer, &count);
  EXPECT_EQ(count, 2U);
  EXPECT_STREQ(buffer, opening.GetUTF8());
}

}  // namespace
