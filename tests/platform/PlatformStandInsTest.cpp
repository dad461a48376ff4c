// The stand-ins for the maker's base libraries, a table each, with rows for
// the behaviours the library relies on that no other test pins down.
// DovToken splits port lists, which KelMsgPortFinderTest reads in every way
// the library does.
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <tuple>

#include <KelMsgFeaMessaging/DovSocketConnector.h>
#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelString.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/strnatcmp.h>
#include <gtest/gtest.h>

namespace {

TEST(KelString, HoldsTextUpToANulAndCountsBytesAndCharacters) {
  const char* const kAEuroSmile = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a, é, €, 😀
  // string, its text, bytes, characters
  const std::tuple<KelString, const char*, int, int> cases[] = {
      {KelString(), "", 0, 0},
      {KelString("abc", 0), "", 0, 0},
      {KelString("x", 1), "x", 1, 1},
      {KelString("ab\0cd", 5), "ab", 2, 2},
      {KelString(kAEuroSmile), kAEuroSmile, 10, 4}};
  for (const auto& [string, text, bytes, characters] : cases) {
    EXPECT_STREQ(string.GetUTF8(), text);
    EXPECT_EQ(string.GetLengthInByte(), bytes) << text;
    EXPECT_EQ(string.GetLengthInChar(), characters) << text;
    EXPECT_TRUE(string == text && string == KelString(text)) << text;
    EXPECT_FALSE(string == "b" || string == KelString("b")) << text;
  }
}

TEST(KelString, WritesNeverShowThroughCopies) {
  const KelString original("a\xC3\xA9llo-z{");
  KelString upper = original;
  upper.ASCIIToUpper();
  KelString appended = original;
  appended.Append(KelString(".stamp"));
  KelString rebuilt = original;
  rebuilt.BuildFromUTF8(rebuilt.GetUTF8() + 3);  // from its own text
  EXPECT_STREQ(upper.GetUTF8(), "A\xC3\xA9LLO-Z{");
  EXPECT_STREQ(appended.GetUTF8(), "a\xC3\xA9llo-z{.stamp");
  EXPECT_STREQ(rebuilt.GetUTF8(), "llo-z{");
  EXPECT_STREQ(original.GetUTF8(), "a\xC3\xA9llo-z{");
}

// Whole characters only, cut where GetLengthInChar counts them, also in
// text that is not UTF-8 (F5 and five continuation bytes are one character;
// continuation bytes at the start join the first); a NUL follows when there
// is room.
TEST(KelString, ConvertToUTF8CopiesWholeCharactersAndCountsThem) {
  // text, capacity, characters and bytes copied
  const std::tuple<const char*, unsigned, unsigned, std::size_t> cases[] = {
      {"\xC3\xA9t\xC3\xA9", 16, 3, 5},
      {"\xC3\xA9t\xC3\xA9", 5, 3, 5},
      {"\xC3\xA9t\xC3\xA9", 4, 2, 3},
      {"\xF5\x9D\x9D\x9D\x9D\x9D\x61", 8, 2, 7},
      {"\xF5\x9D\x9D\x9D\x9D\x9D\x61", 4, 0, 0},
      {"\x97\xF5\x9D\x9D\x61", 8, 2, 5}};
  for (const auto& [text, capacity, characters, bytes] : cases) {
    std::string buffer(16, '#');
    unsigned count = capacity;
    KelString(text).ConvertToUTF8(buffer.data(), &count);
    EXPECT_EQ(count, characters) << text << " in " << capacity;
    std::string written(text, bytes);
    written.resize(bytes < capacity ? bytes + 1 : bytes, '\0');
    written.resize(buffer.size(), '#');
    EXPECT_EQ(buffer, written) << text << " in " << capacity;
  }
}

int Sign(int value) {
  return (value > 0) - (value < 0);
}

// Runs of digits compare by value, whatever their length, and fewer leading
// zeros first; other bytes as strcmp does.  Each string orders before every
// later one.  Map keys follow the switch.
TEST(Strnatcmp, OrdersDigitRunsByValue) {
  const std::string big = "n" + std::string(200, '9');
  const std::string bigger = "n1" + std::string(200, '0');
  const char* const ascending[] = {
      "",     "0",    "00", "1c",      "01b",    "A",     "a",       "a-",        "a9b",
      "a10a", "a_",   "ab", "file007", "file10", "item2", "item10",  big.c_str(), bigger.c_str(),
      "v7",   "v007", "x1", "x1y2",    "x1y10",  "xa",    "\xC3\xA9"};
  for (std::size_t i = 0; i < std::size(ascending); ++i) {
    for (std::size_t j = 0; j < std::size(ascending); ++j) {
      EXPECT_EQ(Sign(strnatcmp(ascending[i], ascending[j])), i < j ? -1 : (i > j ? 1 : 0))
          << ascending[i] << " vs " << ascending[j];
    }
  }
  ASSERT_EQ(atr_getNaturalOrder(), 0) << "byte order when the library is loaded";
  EXPECT_EQ(Sign(cow_KeyCompare("item2", "item10")), 1);
  atr_setNaturalOrder(1);
  EXPECT_EQ(Sign(cow_KeyCompare("item2", "item10")), -1);
  atr_setNaturalOrder(0);
}

// Joining a file into a job directory, and whether it exists, is
// KelMsgPathExplorerTest's.
TEST(KelBasUtlFilePath, NormalisesLexically) {
  const std::string here = std::filesystem::current_path().string();
  // path, base, absolute path
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {"../../../..", "/data/base", "/"},
      {"//data//base/", "/", "/data/base"},
      {"", "//", "/"},
      {".", "/data/base/.", "/data/base"},
      {"../file.dat", "dir", here + "/file.dat"},
      {"", "", here}};
  for (const auto& [path, base, absolute] : cases) {
    EXPECT_EQ(KelBasUtlFilePath(cow_String(path), cow_String(base)).AbsolutePathName().GetText(),
              absolute);
  }
}

// Only the predefined entities are resolved: nothing is fetched from outside
// the text.  A refused text leaves no partial tree.  Depth costs no stack.
TEST(KelBasXmlDocument, TakesOneWellFormedRootAndGathersItsText) {
  std::string opening;
  std::string closing;
  for (int i = 0; i < 200000; ++i) {
    opening += "<d>";
    closing += "</d>";
  }
  // text, root name (null: refused), text content
  const std::tuple<std::string, const char*, const char*> cases[] = {
      {"<!DOCTYPE a [<!ENTITY own \"expanded\"><!ENTITY file SYSTEM \"/etc/hostname\">]>"
       "<a>&own;|<b>&file;|<c/></b>&gt;&apos;&#65;&#xE9;</a>",
       "a", "&own;|&file;|>'A\xC3\xA9"},
      {opening + "x" + closing, "d", "x"},
      {"", nullptr, ""},
      {"<a></b>", nullptr, ""},
      {"<a/><b/>", nullptr, ""},
      {"<a v='1'><b v='1'/></a>", "a", ""},
      {"<a><b y='1' y='1'/></a>", nullptr, ""},
      {"<?xml version=\"1.0\"?>", nullptr, ""}};
  for (const auto& [text, root, content] : cases) {
    KelBasXmlDocument document;
    EXPECT_EQ(document.ReadString(KelString(text.c_str())) == S_OK, root != nullptr);
    EXPECT_STREQ(document.GetRootElement().GetTagName().GetUTF8(), root ? root : "");
    EXPECT_STREQ(document.GetRootElement().GetTextContent().GetUTF8(), content);
  }
}

// Which port the system chooses, and that a taken one is refused, is
// KelMsgPortFinderTest's.
TEST(PlatformDeathTest, CallerContractsEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(DovSocketConnector(0, 10, AF_INET6), "AssertionFailed:addressFamily == AF_INET");
  DovSocketConnector connector(0, 10, AF_INET);
  EXPECT_DEATH(connector.Declare("127.0.0.1"), "AssertionFailed:host == nullptr");
  ASSERT_EQ(connector.Declare(nullptr), 0);
  EXPECT_DEATH(connector.Declare(nullptr), "AssertionFailed:m_socket < 0");
}

}  // namespace
