// The stand-ins for the maker's base libraries, a table each, with rows for
// the behaviours the library relies on that no other test pins down.
#include <sys/socket.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <KelMsgFeaMessaging/DovSocketConnector.h>
#include <KelMsgFeaMessaging/DovToken.h>
#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>
#include <KelMsgFeaMessaging/KelString.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/strnatcmp.h>
#include <gtest/gtest.h>

#include "ScratchDirectory.h"

namespace fs = std::filesystem;

namespace {

const char* const kAEuroSmile = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // a, é, €, 😀

TEST(KelString, HoldsTextUpToANulAndCountsBytesAndCharacters) {
  // string, its text, bytes, characters, whether it holds text
  const std::tuple<KelString, const char*, int, int, bool> cases[] = {
      {KelString(), "", 0, 0, false},
      {KelString(nullptr), "", 0, 0, false},
      {KelString(""), "", 0, 0, true},
      {KelString("abc", 0), "", 0, 0, true},
      {KelString("x", 1), "x", 1, 1, true},
      {KelString("ab\0cd", 5), "ab", 2, 2, true},
      {KelString(kAEuroSmile), kAEuroSmile, 10, 4, true}};
  for (const auto& [string, text, bytes, characters, hasText] : cases) {
    EXPECT_STREQ(string.GetUTF8(), text);
    EXPECT_EQ(string.GetLengthInByte(), bytes) << text;
    EXPECT_EQ(string.GetLengthInChar(), characters) << text;
    EXPECT_EQ(string.HasText(), hasText) << text;
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
// text that is not UTF-8; a NUL follows when there is room.
TEST(KelString, ConvertToUTF8CopiesWholeCharactersAndCountsThem) {
  const char* const kSixBytes =
      "\xF5\x9D\x9D\x9D\x9D\x9D"
      "a";  // not UTF-8: one character, a
  const char* const kOpening =
      "\x97\xF5\x9D\x9D"
      "a";  // leading continuation bytes join the first
  // text, capacity, characters and bytes copied
  const std::tuple<const char*, unsigned, unsigned, std::size_t> cases[] = {
      {"\xC3\xA9t\xC3\xA9", 16, 3, 5},
      {"\xC3\xA9t\xC3\xA9", 5, 3, 5},
      {"\xC3\xA9t\xC3\xA9", 4, 2, 3},
      {"\x9D\x9D", 8, 0, 2},
      {kSixBytes, 8, 2, 7},
      {kSixBytes, 4, 0, 0},
      {kOpening, 3, 0, 0},
      {kOpening, 8, 2, 5}};
  for (const auto& [text, capacity, characters, bytes] : cases) {
    char buffer[16];
    std::fill(buffer, buffer + sizeof buffer, '#');
    unsigned count = capacity;
    KelString(text).ConvertToUTF8(buffer, &count);
    EXPECT_EQ(count, characters) << text << " in " << capacity;
    std::string written(text, bytes);
    written.resize(bytes < capacity ? bytes + 1 : bytes, '\0');
    written.resize(sizeof buffer, '#');
    EXPECT_EQ(std::string(buffer, sizeof buffer), written) << text << " in " << capacity;
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
      "",       "0",         "00",           "1c", "01b",  "2",       "A",      "a",
      "a-",     "a9b",       "a10a",         "a_", "ab",   "file007", "file10", "item2",
      "item10", big.c_str(), bigger.c_str(), "v7", "v007", "x1",      "x1y2",   "x1y10",
      "xa",     "z",         "\xC3\xA9"};
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

// Separators are whole characters: a byte-wise split at é (C3 A9) would also
// cut è (C3 A8) apart.  Each call: the token, then [the separator after it].
TEST(DovToken, SplitsAtWholeCharactersAndReportsEachSeparator) {
  const std::tuple<const char*, const char*, std::string> cases[] = {
      {",,1\xC3\xA9"
       "2\xC3\xA8,,3",
       ",\xC3\xA9", "1[\xC3\xA9]2\xC3\xA8[,]3[]"},
      {kAEuroSmile, "\xF0\x9F\x98\x80\xC3\xA9", "a[\xC3\xA9]\xE2\x82\xAC[\xF0\x9F\x98\x80][]"}};
  for (const auto& [text, separators, expected] : cases) {
    DovToken tokens(DovUnicodeString(text), 0);
    DovUnicodeString found("stale");
    std::string walked;
    do {
      walked += tokens.GetNextToken(DovUnicodeString(separators), &found).ConvertToChar();
      walked += std::string("[") + found.ConvertToChar() + "]";
    } while (found.GetLengthInByte() > 0);
    EXPECT_EQ(walked, expected) << text;
  }
}

// Joining a file into a job directory is KelMsgPathExplorerTest's.  "@"
// stands for a scratch directory, "." for the current directory.
TEST(KelBasUtlFilePath, NormalisesLexicallyAndSeesWhatExists) {
  ScratchDirectory scratch;
  std::ofstream(scratch / "file.dat") << "x";
  fs::create_directory(scratch / "dir");
  fs::create_symlink(scratch / "missing", scratch / "dangling");
  const auto resolve = [&scratch](std::string text) {
    if (text[0] == '@' || text[0] == '.')
      text.replace(0, 1, text[0] == '@' ? scratch.Path().string() : fs::current_path().string());
    return text;
  };
  // path, base, absolute path, whether it exists
  const std::tuple<const char*, std::string, std::string, bool> cases[] = {
      {"../../../..", "/data/base", "/", true},
      {"//data//base/", "/", "/data/base", false},
      {"", "//", "/", true},
      {".", "/data/base/.", "/data/base", false},
      {"../file.dat", "@/dir", "@/file.dat", true},
      {"dir/missing/x", "@", "@/dir/missing/x", false},
      {"dangling", "@", "@/dangling", true},
      {"", "", ".", true}};
  for (const auto& [path, base, absolute, exists] : cases) {
    const KelBasUtlFilePath built(cow_String(path), cow_String(resolve(base).c_str()));
    EXPECT_EQ(built.AbsolutePathName().GetText(), resolve(absolute));
    EXPECT_EQ(built.Exists(), exists) << absolute;
  }
}

// Only the predefined entities are resolved: nothing is fetched from outside
// the text.  A refused text leaves an empty document.  Depth costs no stack.
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
       "<a v=\"&lt;&amp;&quot;\">&own;|<b>&file;|<c/></b>&gt;&apos;&#65;&#xE9;</a>",
       "a", "&own;|&file;|>'A\xC3\xA9"},
      {opening + "x" + closing, "d", "x"},
      {"", nullptr, ""},
      {"plain", nullptr, ""},
      {"<a></b>", nullptr, ""},
      {"<a/><b/>", nullptr, ""},
      {"<a v='1'><b v='1'/></a>", "a", ""},
      {"<a><b y='1' y='1'/></a>", nullptr, ""},
      {"<?xml version=\"1.0\"?>", nullptr, ""}};
  for (const auto& [text, root, content] : cases) {
    KelBasXmlDocument document;
    ASSERT_EQ(document.ReadString(KelString("<earlier/>")), S_OK);
    EXPECT_EQ(document.ReadString(KelString(text.c_str())) == S_OK, root != nullptr);
    EXPECT_STREQ(document.GetRootElement().GetTagName().GetUTF8(), root ? root : "");
    EXPECT_STREQ(document.GetRootElement().GetTextContent().GetUTF8(), content);
    if (text[1] == '!') {
      EXPECT_STREQ(document.GetRootElement().GetAttributes().at(KelString("v")).GetUTF8(), "<&\"");
    }
  }
}

// Which port the system chooses is KelMsgPortFinderTest's.
TEST(PlatformDeathTest, CallerContractsEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(DovToken(DovUnicodeString("a"), 1), "AssertionFailed:mode == 0");
  EXPECT_DEATH(DovSocketConnector(0, 10, AF_INET6), "AssertionFailed:addressFamily == AF_INET");
  DovSocketConnector connector(0, 10, AF_INET);
  EXPECT_EQ(connector.GetPort(), 65535) << "no port before Declare";
  EXPECT_DEATH(connector.Declare("127.0.0.1"), "AssertionFailed:host == nullptr");
  ASSERT_EQ(connector.Declare(nullptr), 0);
  EXPECT_DEATH(connector.Declare(nullptr), "AssertionFailed:m_socket < 0");
  DovSocketConnector second(connector.GetPort(), 10, AF_INET);
  EXPECT_NE(second.Declare(nullptr), 0) << "the port is taken";
  EXPECT_EQ(second.GetPort(), 65535);
}

}  // namespace
