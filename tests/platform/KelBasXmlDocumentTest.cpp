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

// Root names, attributes, text with CDATA and comments are pinned through
// the kill documents of KelMsgProcessControlTypeTest.
TEST(KelBasXmlDocumentTest, ResolvesOnlyPredefinedEntitiesAndGathersTextAtAnyDepth) {
  KelBasXmlDocument document;
  ASSERT_EQ(document.ReadString(KelString(
                "<!DOCTYPE a [<!ENTITY own \"expanded\">"
                "<!ENTITY file SYSTEM \"/etc/hostname\">]>"
                "<a v=\"&lt;&amp;&quot;\">&own;|<b>&file;|<c/></b>&gt;&apos;&#65;&#xE9;</a>")),
            S_OK);
  const KelBasXmlNode root = document.GetRootElement();
  EXPECT_EQ(Text(root.GetAttributes().at(KelString("v"))), "<&\"");
  EXPECT_EQ(Text(root.GetTextContent()), "&own;|&file;|>'A\xC3\xA9");
}

TEST(KelBasXmlDocumentTest, RefusedTextsLeaveAnEmptyDocument) {
  for (const char* text :
       {"", "   ", "plain text", "<a>", "<a></b>", "<a/><b/>", "<a x='1' x='2'/>",
        "<a><b y='1' y='1'/></a>", "<?xml version=\"1.0\"?>"}) {
    KelBasXmlDocument document;
    ASSERT_EQ(document.ReadString(KelString("<earlier/>")), S_OK);
    const KelString earlier = document.GetRootElement().GetTagName();
    EXPECT_NE(document.ReadString(KelString(text)), S_OK) << text;
    EXPECT_TRUE(document.GetRootElement().IsEmpty()) << text;
    EXPECT_EQ(Text(document.GetRootElement().GetTagName()), "") << text;
    EXPECT_EQ(Text(earlier), "earlier") << "names handed out are copies";
  }
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
