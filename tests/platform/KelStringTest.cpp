#include <KelMsgFeaMessaging/KelString.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(KelStringTest, NoTextReadsAsEmpty) {
  const KelString none;
  const KelString fromNull(nullptr);
  for (const KelString* s : {&none, &fromNull}) {
    EXPECT_FALSE(s->HasText());
    EXPECT_STREQ(s->GetUTF8(), "");
    EXPECT_EQ(s->GetLengthInByte(), 0);
    EXPECT_EQ(s->GetLengthInChar(), 0);
  }
  EXPECT_TRUE(KelString("").HasText());
  EXPECT_TRUE(none == KelString(""));
}

TEST(KelStringTest, LengthsCountBytesAndCharacters) {
  const KelString s("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");  // a, é, €, 😀
  EXPECT_EQ(s.GetLengthInByte(), 10);
  EXPECT_EQ(s.GetLengthInChar(), 4);
}

TEST(KelStringTest, ByteRunStopsAtTheFirstNul) {
  const KelString s(std::string("ab\0cd", 5).data(), 5);
  EXPECT_EQ(s.GetLengthInByte(), 2);
  EXPECT_STREQ(s.GetUTF8(), "ab");
  EXPECT_EQ(KelString("abc", 0).GetLengthInByte(), 0);
}

TEST(KelStringTest, WritesNeverShowThroughCopies) {
  KelString original("node7");
  const KelString copy = original;
  EXPECT_EQ(copy.GetUTF8(), original.GetUTF8()) << "copies share the text";

  original.ASCIIToUpper();
  EXPECT_STREQ(original.GetUTF8(), "NODE7");
  EXPECT_STREQ(copy.GetUTF8(), "node7");

  KelString appended = copy;
  appended.Append(KelString(".stamp"));
  EXPECT_STREQ(appended.GetUTF8(), "node7.stamp");
  EXPECT_STREQ(copy.GetUTF8(), "node7");

  KelString rebuilt = copy;
  rebuilt.BuildFromUTF8(rebuilt.GetUTF8() + 1);  // from its own text
  EXPECT_STREQ(rebuilt.GetUTF8(), "ode7");
  EXPECT_STREQ(copy.GetUTF8(), "node7");
}

TEST(KelStringTest, ASCIIToUpperLeavesOtherBytesAlone) {
  KelString s("h\xC3\xA9llo-z{");
  s.ASCIIToUpper();
  EXPECT_STREQ(s.GetUTF8(), "H\xC3\xA9LLO-Z{");
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
  EXPECT_EQ(std::memcmp(small, "\xC3\xA9t", 3), 0);
  EXPECT_EQ(small[3], '\0');
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
