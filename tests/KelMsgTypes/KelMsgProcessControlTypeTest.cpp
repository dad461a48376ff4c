#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>

#include <cstdint>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

constexpr char kEncoderPath[] = "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgProcessControlEncoder";
constexpr char kMessagePath[] = "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgProcessControlType";

const std::string kSoftKill =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">SOFT_KILL</Kill>";
const std::string kHardKill =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">HARD_KILL</Kill>";

Bytes KillPayload(const std::string& document) {
  return PayloadBuilder().Counted(document).Get();
}

const KelMsgProcessControlType& AsProcessControl(const KelMsgBBMessage& msg) {
  return dynamic_cast<const KelMsgProcessControlType&>(msg);
}

TEST(KelMsgProcessControlTypeTest, FactoryBuildsTheSoftAndHardKillDocuments) {
  const std::shared_ptr<KelMsgProcessControlType> soft =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
  const std::shared_ptr<KelMsgProcessControlType> hard =
      KelMsgProcessControlTypeFactory::CreateHardKillMsg();
  EXPECT_EQ(soft.use_count(), 1);
  EXPECT_STREQ(soft->Type(), "KelMsgProcessControlType");
  EXPECT_EQ(soft->ControlType(), KelMsgProcessControlType::PROCESS_CONTROL_KILL);
  EXPECT_EQ(soft->ControlType(), 1);
  EXPECT_TRUE(soft->isPresent(KelString("Kill")));
  EXPECT_STREQ(soft->GetVal(KelString("Kill")).GetUTF8(), "SOFT_KILL");
  EXPECT_STREQ(hard->GetVal(KelString("Kill")).GetUTF8(), "HARD_KILL");

  ASSERT_EQ(kSoftKill.size(), 76U);
  const Bytes softPayload = StreamToBytes(*soft);
  ASSERT_EQ(softPayload.size(), 80U);
  EXPECT_EQ(Bytes(softPayload.begin(), softPayload.begin() + 4), Hex({0x4C, 0, 0, 0}));
  EXPECT_EQ(std::string(softPayload.begin() + 4, softPayload.end()), kSoftKill);
  const Bytes hardPayload = StreamToBytes(*hard);
  ASSERT_EQ(hardPayload.size(), 80U);
  EXPECT_EQ(Bytes(hardPayload.begin(), hardPayload.begin() + 4), Hex({0x4C, 0, 0, 0}));
  EXPECT_EQ(std::string(hardPayload.begin() + 4, hardPayload.end()), kHardKill);
}

TEST(KelMsgProcessControlTypeTest, KillDocumentInsertsTheValueVerbatim) {
  EXPECT_STREQ(KelMsgProcessControlEncoder::CreateKillXmlMessage(KelString("SOFT_KILL")).GetUTF8(),
               kSoftKill.c_str());
  EXPECT_STREQ(KelMsgProcessControlEncoder::CreateKillXmlMessage(KelString("a<b&")).GetUTF8(),
               "<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">a<b&</Kill>");
}

TEST(KelMsgProcessControlTypeTest, ReceivedKillIsInternalized) {
  for (const std::string* document : {&kSoftKill, &kHardKill}) {
    KelMsgProcessControlType received;
    ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(*document)));
    EXPECT_EQ(received.ControlType(), 1);
    ASSERT_EQ(received.m_values.size(), 1U);
    EXPECT_STREQ(received.m_values.begin()->first.GetUTF8(), "Kill");
    EXPECT_STREQ(received.m_values.begin()->second.GetUTF8(), document->substr(60, 9).c_str());
    EXPECT_EQ(StreamToBytes(received), KillPayload(*document));
  }
}

TEST(KelMsgProcessControlTypeTest, AnyFormTheParserAcceptsIsTaken) {
  const std::string relaxed = "<Kill\n  type='symconst'><![CDATA[HARD_KILL]]><!-- now --></Kill>\n";
  KelMsgProcessControlType received;
  ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(relaxed)));
  EXPECT_STREQ(received.GetVal(KelString("Kill")).GetUTF8(), "HARD_KILL");
}

TEST(KelMsgProcessControlTypeTest, PrintShowsTheDocumentAndFlushes) {
  KelMsgProcessControlType received;
  ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(kSoftKill)));
  MemoryStream out;
  received.Print(out.Get(), "pc ");
  EXPECT_EQ(out.Flushed(),
            "pc Message Type: KelMsgProcessControlType\npc    Content: " + kSoftKill + "\n");
  MemoryStream plain;
  received.Print(plain.Get(), nullptr);
  EXPECT_EQ(plain.Flushed(),
            "Message Type: KelMsgProcessControlType\n   Content: " + kSoftKill + "\n");
}

TEST(KelMsgProcessControlTypeTest, LookupsNeverChangeTheMap) {
  const std::shared_ptr<KelMsgProcessControlType> soft =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
  EXPECT_FALSE(soft->GetVal(KelString("Stop")).HasText());
  EXPECT_FALSE(soft->isPresent(KelString("Stop")));
  EXPECT_FALSE(soft->isPresent(KelString("kill")));
  EXPECT_EQ(soft->m_values.size(), 1U);
}

TEST(KelMsgProcessControlTypeTest, DefaultMessageIsEmpty) {
  const KelMsgProcessControlType msg;
  EXPECT_EQ(msg.ControlType(), 0);
  EXPECT_TRUE(msg.m_values.empty());
  EXPECT_STREQ(msg.m_xmlMessage.GetUTF8(), "");
}

TEST(KelMsgProcessControlTypeTest, CloneIsAFullCopy) {
  KelMsgProcessControlType received;
  ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(kHardKill)));
  const std::unique_ptr<KelMsgBBMessage> clone(received.Clone());
  const KelMsgProcessControlType& copy = AsProcessControl(*clone);
  EXPECT_STREQ(copy.Type(), "KelMsgProcessControlType");
  EXPECT_EQ(copy.ControlType(), 1);
  EXPECT_TRUE(copy.m_values == received.m_values);
  EXPECT_TRUE(copy.m_xmlMessage == received.m_xmlMessage);
}

TEST(KelMsgProcessControlTypeTest, AnExistingKillEntryIsKept) {
  // Why the prototype must be a default-constructed message.
  const std::shared_ptr<KelMsgProcessControlType> soft =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
  const std::unique_ptr<KelMsgBBMessage> clone(soft->Clone());
  auto& received = dynamic_cast<KelMsgProcessControlType&>(*clone);
  ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(kHardKill)));
  EXPECT_STREQ(received.m_xmlMessage.GetUTF8(), kHardKill.c_str());
  EXPECT_STREQ(received.GetVal(KelString("Kill")).GetUTF8(), "SOFT_KILL");
}

TEST(KelMsgProcessControlTypeTest, DocumentsBreakingARuleAreRefusedAtThatRule) {
  const std::string decl = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";
  struct Case {
    std::string document;
    const char* report;
    int controlType;  // step 3 sets it once the root's name has passed
  };
  const Case cases[] = {
      {decl + "<Kill type=\"symconst\">SOFT_KILL", "AssertionFailed:hr == S_OK", 0},
      {decl + "<Kill type=\"symconst\" type=\"x\">SOFT_KILL</Kill>", "AssertionFailed:hr == S_OK",
       0},
      {decl + "<Stop type=\"symconst\">SOFT_KILL</Stop>", "AssertionFailed:rootTagName == \"Kill\"",
       0},
      {decl + "<kill type=\"symconst\">SOFT_KILL</kill>", "AssertionFailed:rootTagName == \"Kill\"",
       0},
      {decl + "<Kill type=\"symconst\" now=\"1\">SOFT_KILL</Kill>",
       "AssertionFailed:atts.size() == 1", 1},
      {decl + "<Kill>SOFT_KILL</Kill>", "AssertionFailed:atts.size() == 1", 1},
      {decl + "<Kill kind=\"symconst\">SOFT_KILL</Kill>", "AssertionFailed:itr != atts.end()", 1},
      {decl + "<Kill type=\"SymConst\">SOFT_KILL</Kill>",
       "AssertionFailed:killType == \"symconst\"", 1},
      {decl + "<Kill type=\"symconst\">soft_kill</Kill>",
       "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\"", 1},
      {decl + "<Kill type=\"symconst\"> SOFT_KILL</Kill>",
       "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\"", 1},
      {decl + "<Kill type=\"symconst\"></Kill>",
       "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\"", 1},
      {"<!DOCTYPE Kill [<!ENTITY v \"SOFT_KILL\">]><Kill type=\"symconst\">&v;</Kill>",
       "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\"", 1},
  };
  for (const Case& c : cases) {
    FatalErrorCapture capture;
    KelMsgProcessControlType received;
    EXPECT_TRUE(UnstreamIsRefused(received, KillPayload(c.document))) << c.document;
    ASSERT_EQ(capture.Reports().size(), 1U) << c.document;
    EXPECT_EQ(capture.Reports()[0].message, c.report) << c.document;
    EXPECT_EQ(capture.Reports()[0].path, kEncoderPath);
    EXPECT_EQ(received.ControlType(), c.controlType) << c.document;
    EXPECT_TRUE(received.m_values.empty()) << c.document;
  }
}

TEST(KelMsgProcessControlTypeTest, CountBelowOneIsRefused) {
  for (const std::int32_t count : {0, -1, INT32_MIN}) {
    FatalErrorCapture capture;
    KelMsgProcessControlType received;
    EXPECT_TRUE(UnstreamIsRefused(received, PayloadBuilder().Int32(count).Get()));
    ASSERT_EQ(capture.Reports().size(), 1U);
    EXPECT_EQ(capture.Reports()[0].message, "AssertionFailed:len > 0");
    EXPECT_EQ(capture.Reports()[0].path, kMessagePath);
    EXPECT_STREQ(received.m_xmlMessage.GetUTF8(), "");
  }
}

TEST(KelMsgProcessControlTypeDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const KelMsgProcessControlType empty;
  EXPECT_DEATH(empty.RequiredBufferSize(),
               "AssertionFailed:m_xmlMessage.GetLengthInChar\\(\\) > 0");
  char buffer[79];
  EXPECT_DEATH(KelMsgProcessControlTypeFactory::CreateSoftKillMsg()->Stream(buffer, 79),
               "AssertionFailed:size >= RequiredBufferSize\\(\\)");

  KelMsgProcessControlType request;
  EXPECT_DEATH(KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(request),
               "AssertionFailed:pcType.m_processControlType == "
               "KelMsgProcessControlType::PROCESS_CONTROL_KILL");
  request.m_processControlType = KelMsgProcessControlType::PROCESS_CONTROL_KILL;
  EXPECT_DEATH(KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(request),
               "AssertionFailed:\"Unknown Kill Type in KelMsgProcessControlType\" == 0");
  request.m_values[KelString("Kill")] = KelString("hard_kill");
  EXPECT_DEATH(KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(request),
               "AssertionFailed:\"Unknown Kill Type in KelMsgProcessControlType\" == 0");
}

}  // namespace
