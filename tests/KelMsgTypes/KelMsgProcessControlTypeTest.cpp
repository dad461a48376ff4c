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

const std::string kDeclaration = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";
const std::string kHardKill = kDeclaration + "<Kill type=\"symconst\">HARD_KILL</Kill>";

Bytes KillPayload(const std::string& document) {
  return PayloadBuilder().Counted(document).Get();
}

TEST(KelMsgProcessControlTypeTest, KillRequestsTravelAsEightyBytesAndAreInternalized) {
  for (const bool hard : {false, true}) {
    const std::shared_ptr<const KelMsgProcessControlType> sent =
        hard ? KelMsgProcessControlTypeFactory::CreateHardKillMsg()
             : KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
    const std::string value = hard ? "HARD_KILL" : "SOFT_KILL";
    const std::string document = kDeclaration + "<Kill type=\"symconst\">" + value + "</Kill>";
    const Bytes payload = StreamToBytes(*sent);
    ASSERT_EQ(payload, KillPayload(document));
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 4), Hex({0x4C, 0, 0, 0}));

    KelMsgProcessControlType received;
    ASSERT_FALSE(UnstreamIsRefused(received, payload));
    const std::unique_ptr<const KelMsgBBMessage> clone(received.Clone());
    const auto* copy = dynamic_cast<const KelMsgProcessControlType*>(clone.get());
    for (const KelMsgProcessControlType* msg : {sent.get(), copy}) {
      EXPECT_STREQ(msg->Type(), "KelMsgProcessControlType");
      EXPECT_EQ(msg->ControlType(), KelMsgProcessControlType::PROCESS_CONTROL_KILL);
      EXPECT_EQ(msg->GetVal(KelString("Kill")).GetUTF8(), value);
      EXPECT_FALSE(msg->isPresent(KelString("kill")) || msg->GetVal(KelString("Stop")).HasText());
      EXPECT_EQ(msg->m_values.size(), 1U) << "lookups never change the map";
      EXPECT_EQ(StreamToBytes(*msg), payload);
    }
    MemoryStream out;
    copy->Print(out.Get(), hard ? nullptr : "pc ");
    const std::string prefix = hard ? "" : "pc ";
    EXPECT_EQ(out.Flushed(), prefix + "Message Type: KelMsgProcessControlType\n" + prefix +
                                 "   Content: " + document + "\n");
  }
  EXPECT_STREQ(KelMsgProcessControlEncoder::CreateKillXmlMessage(KelString("a<b&")).GetUTF8(),
               (kDeclaration + "<Kill type=\"symconst\">a<b&</Kill>").c_str())
      << "the value goes in verbatim";
}

TEST(KelMsgProcessControlTypeTest, AnyFormTheParserAcceptsIsTakenAndAKillEntryIsKept) {
  KelMsgProcessControlType relaxed;
  ASSERT_FALSE(UnstreamIsRefused(
      relaxed, KillPayload("<Kill\n  type='symconst'><![CDATA[HARD_KILL]]><!-- now --></Kill>\n")));
  EXPECT_STREQ(relaxed.GetVal(KelString("Kill")).GetUTF8(), "HARD_KILL");

  // Why the prototype must be a default-constructed message.
  const std::unique_ptr<KelMsgBBMessage> clone(
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg()->Clone());
  auto& received = dynamic_cast<KelMsgProcessControlType&>(*clone);
  ASSERT_FALSE(UnstreamIsRefused(received, KillPayload(kHardKill)));
  EXPECT_STREQ(received.m_xmlMessage.GetUTF8(), kHardKill.c_str());
  EXPECT_STREQ(received.GetVal(KelString("Kill")).GetUTF8(), "SOFT_KILL");
}

TEST(KelMsgProcessControlTypeTest, DocumentsBreakingARuleAreRefusedAtThatRule) {
  const std::string& decl = kDeclaration;
  const char* const kParser = "AssertionFailed:hr == S_OK";
  const char* const kRoot = "AssertionFailed:rootTagName == \"Kill\"";
  const char* const kValue = "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\"";
  struct Case {
    std::string document;
    const char* report;
    int controlType;  // set once the root's name has passed
  };
  const Case cases[] = {
      {decl + "<Kill type=\"symconst\">SOFT_KILL", kParser, 0},
      {decl + "<Kill type=\"symconst\" type=\"x\">SOFT_KILL</Kill>", kParser, 0},
      {decl + "<Stop type=\"symconst\">SOFT_KILL</Stop>", kRoot, 0},
      {decl + "<kill type=\"symconst\">SOFT_KILL</kill>", kRoot, 0},
      {decl + "<Kill type=\"symconst\" now=\"1\">SOFT_KILL</Kill>",
       "AssertionFailed:atts.size() == 1", 1},
      {decl + "<Kill>SOFT_KILL</Kill>", "AssertionFailed:atts.size() == 1", 1},
      {decl + "<Kill kind=\"symconst\">SOFT_KILL</Kill>", "AssertionFailed:itr != atts.end()", 1},
      {decl + "<Kill type=\"SymConst\">SOFT_KILL</Kill>",
       "AssertionFailed:killType == \"symconst\"", 1},
      {decl + "<Kill type=\"symconst\">soft_kill</Kill>", kValue, 1},
      {decl + "<Kill type=\"symconst\"> SOFT_KILL</Kill>", kValue, 1},
      {decl + "<Kill type=\"symconst\"></Kill>", kValue, 1},
      {"<!DOCTYPE Kill [<!ENTITY v \"SOFT_KILL\">]><Kill type=\"symconst\">&v;</Kill>", kValue, 1},
  };
  for (const Case& c : cases) {
    FatalErrorCapture capture;
    KelMsgProcessControlType received;
    EXPECT_TRUE(UnstreamIsRefused(received, KillPayload(c.document))) << c.document;
    ASSERT_EQ(capture.Reports().size(), 1U) << c.document;
    EXPECT_EQ(capture.Reports()[0].message, c.report) << c.document;
    EXPECT_EQ(capture.Reports()[0].path,
              "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgProcessControlEncoder");
    EXPECT_EQ(received.ControlType(), c.controlType) << c.document;
    EXPECT_TRUE(received.m_values.empty()) << c.document;
  }
}

TEST(KelMsgProcessControlTypeTest, CountBelowOneIsRefused) {
  // Negative counts are among the damaged payloads of KelMsgPayloadRefusalTest.
  FatalErrorCapture capture;
  KelMsgProcessControlType received;
  EXPECT_TRUE(UnstreamIsRefused(received, PayloadBuilder().Int32(0).Get()));
  ASSERT_EQ(capture.Reports().size(), 1U);
  EXPECT_EQ(capture.Reports()[0].message, "AssertionFailed:len > 0");
  EXPECT_EQ(capture.Reports()[0].path,
            "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgProcessControlType");
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
