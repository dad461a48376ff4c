#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>

#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

TEST(KelMsgAnalysisMessageTypeTest, StreamsTheByteCountThenTheDocumentAndRoundTrips) {
  const KelMsgAnalysisMessageType msg(KelString("<Step n=1/>"));
  EXPECT_STREQ(msg.Type(), "KelMsgAnalysisMessageType");
  EXPECT_EQ(StreamToBytes(msg),
            Hex({0x0B, 0, 0, 0, '<', 'S', 't', 'e', 'p', ' ', 'n', '=', '1', '/', '>'}));

  const KelString document("<Last>\xE2\x82\xAC 12 \xC3\xA9t\xC3\xA9</Last>");  // € 12 été
  const Bytes payload = StreamToBytes(KelMsgAnalysisMessageType(document));
  ASSERT_EQ(payload.size(), 4U + 25U);
  EXPECT_EQ(payload[0], 25);
  KelMsgAnalysisMessageType received;
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  const std::unique_ptr<KelMsgBBMessage> clone(received.Clone());
  EXPECT_STREQ(clone->Type(), "KelMsgAnalysisMessageType");
  EXPECT_EQ(StreamToBytes(*clone), payload);
}

TEST(KelMsgAnalysisMessageTypeTest, UnstreamTakesTheTextUpToAnyNulAndAnEmptyDocument) {
  const std::pair<Bytes, const char*> cases[] = {
      {PayloadBuilder().Counted(std::string("<A/>\0<B/>", 9)).Get(), "<A/>"},
      {Hex({0, 0, 0, 0}), ""},
  };
  for (const auto& [payload, document] : cases) {
    KelMsgAnalysisMessageType msg(KelString("<Old/>"));
    ASSERT_FALSE(UnstreamIsRefused(msg, payload));
    EXPECT_STREQ(msg.GetXmlBuffer().GetUTF8(), document);
  }
}

TEST(KelMsgAnalysisMessageTypeTest, PrintPutsThePrefixAfterTheWordsAndFlushes) {
  const KelMsgAnalysisMessageType msg(KelString("<Done/>"));
  const std::pair<const char*, const char*> cases[] = {
      {nullptr, "Analysis Message PrefixDefaultPfix\n<Done/>\n"},
      {"[mon]", "Analysis Message Prefix[mon]\n<Done/>\n"},
  };
  for (const auto& [prefix, expected] : cases) {
    MemoryStream out;
    msg.Print(out.Get(), prefix);
    EXPECT_EQ(out.Flushed(), expected);
  }
}

TEST(KelMsgAnalysisMessageTypeTest, RootNameOfTheDocument) {
  const KelMsgAnalysisMessageType reader;
  const std::pair<const char*, const char*> cases[] = {
      {"<?xml version=\"1.0\"?><!-- kind --><Progress step=\"3\"><x/></Progress>", "Progress"},
      {"<Gr\xC3\xB6\xC3\x9F"
       "e\xE2\x82\xAC>1</Gr\xC3\xB6\xC3\x9F"
       "e\xE2\x82\xAC>",
       "Gr\xC3\xB6\xC3\x9F"
       "e\xE2\x82\xAC"},
  };
  for (const auto& [document, name] : cases) {
    EXPECT_STREQ(KelMsgAnalysisMessageType::GetRootElemNameFromXml(KelString(document)).GetUTF8(),
                 name);
    EXPECT_STREQ(reader.GetTypeFromXmlBuffer(KelString(document)).GetUTF8(), name);
  }
}

TEST(KelMsgAnalysisMessageTypeTest, RootNameOfARefusedDocumentIsReportedAndEmpty) {
  const KelMsgAnalysisMessageType reader;
  for (const char* text : {"<Open>", "", "<A/><B/>", "plain text"}) {
    FatalErrorCapture capture;
    EXPECT_STREQ(KelMsgAnalysisMessageType::GetRootElemNameFromXml(KelString(text)).GetUTF8(), "");
    EXPECT_STREQ(reader.GetTypeFromXmlBuffer(KelString(text)).GetUTF8(), "");
    ASSERT_EQ(capture.Reports().size(), 2U) << text;
    for (const FatalErrorReport& report : capture.Reports()) {
      EXPECT_EQ(report.message, "AssertionFailed:hr == S_OK");
      EXPECT_EQ(report.path, "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgAnalysisMessageType");
    }
  }
}

TEST(KelMsgAnalysisMessageTypeTest, RootNameThatIsNotUtf8NamesNoKind) {
  // 0xF5 never starts a UTF-8 sequence; with the continuation bytes after it
  // the name reads as one character of nine bytes.
  const KelString document("<\xF5\x9D\x9D\x9D\x9D\x9D\x9D\x9D\x9D/>");
  FatalErrorCapture capture;
  EXPECT_STREQ(KelMsgAnalysisMessageType().GetTypeFromXmlBuffer(document).GetUTF8(), "");
  ASSERT_EQ(capture.Reports().size(), 1U);
  EXPECT_EQ(capture.Reports()[0].message, "AssertionFailed:s1 == len");
  EXPECT_EQ(capture.Reports()[0].path,
            "KelMsgFeaMessaging/KelMsgTypes.m/src/KelMsgAnalysisMessageType");
}

TEST(KelMsgAnalysisMessageTypeDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(KelMsgAnalysisMessageType(KelString("")),
               "AssertionFailed:xmlBuffer.GetLengthInByte\\(\\) > 0");
  const KelMsgAnalysisMessageType empty;
  EXPECT_DEATH(empty.RequiredBufferSize(), "AssertionFailed:m_msgBuffer.GetLengthInByte\\(\\) > 0");
  KelMsgAnalysisMessageType received(KelString("<Old/>"));
  ASSERT_FALSE(UnstreamIsRefused(received, Hex({0, 0, 0, 0})));
  char buffer[16];
  EXPECT_DEATH(received.Stream(buffer, 16),
               "AssertionFailed:m_msgBuffer.GetLengthInByte\\(\\) > 0");
  const KelMsgAnalysisMessageType msg(KelString("<Done/>"));
  EXPECT_DEATH(msg.Stream(buffer, 10), "AssertionFailed:size >= RequiredBufferSize\\(\\)");
}

}  // namespace
