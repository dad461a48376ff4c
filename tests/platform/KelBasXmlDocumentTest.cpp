#include <KelMsgFeaMessaging/KelBasTreeGeneric.h>
#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelBasXmlNode.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::string Text(const KelString& text) {
  return text.GetUTF8();
}

TEST(KelBasXmlDocumentTest, RootNameAttributesAndText) {
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(KelString("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                                          "<Kill type=\"symconst\" b='2'>SOFT_KILL</Kill>")),
            S_OK);
  const KelBasXmlNode root = document.GetRootElement();
  ASSERT_FALSE(root.IsEmpty());
  EXPECT_EQ(Text(root.GetTagName()), "Kill");
  const KelBasTreeGeneric<KelString> attributes = root.GetAttributes();
  ASSERT_EQ(attributes.size(), 2U);
  EXPECT_EQ(Text(attributes.at(KelString("type"))), "symconst");
  EXPECT_EQ(Text(attributes.at(KelString("b"))), "2");
  EXPECT_EQ(Text(root.GetTextContent()), "SOFT_KILL");
}

TEST(KelBasXmlDocumentTest, TextContentGathersTextAndCdataAtAnyDepth) {
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(KelString("<a>one <b>two<!-- no --></b><![CDATA[<three>]]></a>")),
            S_OK);
  EXPECT_EQ(Text(document.GetRootElement().GetTextContent()), "one two<three>");
}

TEST(KelBasXmlDocumentTest, OnlyPredefinedEntitiesAndCharacterReferencesAreResolved) {
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(
                KelString("<!DOCTYPE a [<!ENTITY own \"expanded\">"
                          "<!ENTITY file SYSTEM \"/etc/hostname\">]>"
                          "<a v=\"&lt;&amp;&quot;\">&own;|&file;|&gt;&apos;&#65;&#xE9;</a>")),
            S_OK);
  const KelBasXmlNode root = document.GetRootElement();
  EXPECT_EQ(Text(root.GetAttributes().at(KelString("v"))), "<&\"");
  EXPECT_EQ(Text(root.GetTextContent()), "&own;|&file;|>'A\xC3\xA9");
}

TEST(KelBasXmlDocumentTest, RefusedTextsLeaveAnEmptyDocument) {
  const char* refused[] = {
      "",
      "   ",
      "plain text",
      "<a>",
      "<a></b>",
      "<a/><b/>",
      "<a x='1' x='2'/>",
      "<a><b y='1' y='1'/></a>",
      "<?xml version=\"1.0\"?>",
  };
  for (const char* text : refused) {
    KelBasXmlDocument document;
    ASSERT_EQ(document.ReadString(KelString("<earlier/>")), S_OK);
    EXPECT_NE(document.ReadString(KelString(text)), S_OK) << text;
    EXPECT_TRUE(document.GetRootElement().IsEmpty()) << text;
    EXPECT_EQ(Text(document.GetRootElement().GetTagName()), "") << text;
  }
}

TEST(KelBasXmlDocumentTest, ReadingAgainReplacesTheDocument) {
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(KelString("<first/>")), S_OK);
  const KelString name = document.GetRootElement().GetTagName();
  ASSERT_EQ(document.ReadString(KelString("<second/>")), S_OK);
  EXPECT_EQ(Text(document.GetRootElement().GetTagName()), "second");
  EXPECT_EQ(Text(name), "first") << "names handed out are copies";
}

TEST(KelBasXmlDocumentTest, DeepNestingCostsNoStack) {
  constexpr int kDepth = 200000;
  std::string text;
  for (int i = 0; i < kDepth; ++i)
    text += "<d>";
  text += "x";
  for (int i = 0; i < kDepth; ++i)
    text += "</d>";
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(KelString(text.c_str())), S_OK);
  EXPECT_EQ(Text(document.GetRootElement().GetTextContent()), "x");
}

TEST(KelBasTreeGenericTest, KeysAreOrderedByteWise) {
  KelBasTreeGeneric<int> map;
  for (const char* key : {"b", "\xC3\xA9", "B", "", "a10", "a9"})
    map.emplace(KelString(key), 0);
  map.emplace(KelString(), 1);  // no text orders as "", already present
  std::vector<std::string> keys;
  for (const auto& entry : map)
    keys.push_back(entry.first.GetUTF8());
  EXPECT_EQ(keys, (std::vector<std::string>{"", "B", "a10", "a9", "b", "\xC3\xA9"}));
  EXPECT_EQ(map.at(KelString("")), 0);
}

}  // namespace
