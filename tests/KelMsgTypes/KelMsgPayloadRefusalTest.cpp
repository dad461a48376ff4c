// Payloads from another process that are cut short or carry bad counts are
// refused with one report, leave the message as it was, and are never read
// past their end (the sanitizer build sees every such read).
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

constexpr char kCutShort[] = "AssertionFailed:byteCount <= bytesLeft";
constexpr char kNegative[] = "AssertionFailed:byteCount >= 0";
constexpr char kBytesOver[] = "AssertionFailed:bytesLeft == 0";

struct ValidPayload {
  std::string name;
  std::function<std::unique_ptr<KelMsgBBMessage>()> make;
  // Everything the message holds, as text, to see that a refusal changed
  // nothing.
  std::function<std::string(const KelMsgBBMessage&)> describe;
  Bytes payload;
  std::vector<std::size_t> countOffsets;  // where the 32-bit byte counts are
  const char* negativeCountReport;
};

std::string DescribeAnalysis(const KelMsgBBMessage& msg) {
  return dynamic_cast<const KelMsgAnalysisMessageType&>(msg).GetXmlBuffer().GetUTF8();
}

std::string DescribeProcessControl(const KelMsgBBMessage& msg) {
  const auto& pc = dynamic_cast<const KelMsgProcessControlType&>(msg);
  std::string text = std::to_string(pc.ControlType()) + "|" + pc.m_xmlMessage.GetUTF8();
  for (const auto& [key, value] : pc.m_values) {
    text += std::string("|") + key.GetUTF8() + "=" + value.GetUTF8();
  }
  return text;
}

std::string DescribeFileTransfer(const KelMsgBBMessage& msg) {
  const KelMsgFileTransferData& r = dynamic_cast<const KelMsgFileTransferType&>(msg).Data();
  std::string text = std::to_string(r.m_dataType);
  for (const KelString* name :
       {&r.m_sourceApplication, &r.m_sourceBaseDir, &r.m_sourceJobDir, &r.m_sourceFileName,
        &r.m_targetApplication, &r.m_targetBaseDir, &r.m_targetJobDir, &r.m_targetFileName}) {
    text += std::string("|") + name->GetUTF8();
  }
  text += "|" + std::to_string(r.m_chunkId) + "|" + std::to_string(r.m_chunkSize);
  if (r.m_chunkData != nullptr)
    text += "|" + std::string(r.m_chunkData, r.m_chunkData + r.m_chunkSize);
  return text;
}

ValidPayload AnalysisPayload() {
  return {"analysis",
          [] { return std::make_unique<KelMsgAnalysisMessageType>(); },
          DescribeAnalysis,
          PayloadBuilder().Counted("<Progress>42</Progress>").Get(),
          {0},
          kNegative};
}

ValidPayload ProcessControlPayload() {
  return {"process control",
          [] { return std::make_unique<KelMsgProcessControlType>(); },
          DescribeProcessControl,
          PayloadBuilder()
              .Counted("<?xml version=\"1.0\" encoding=\"utf-8\"?>"
                       "<Kill type=\"symconst\">HARD_KILL</Kill>")
              .Get(),
          {0},
          "AssertionFailed:len > 0"};
}

ValidPayload FileTransferPayload() {
  PayloadBuilder builder;
  std::vector<std::size_t> counts;
  builder.Int32(3);
  for (const char* name : {"pre", "/base", "", "mesh.inp", "solver", "/tmp", "job", "m.inp"}) {
    counts.push_back(builder.Size());
    builder.Counted(name);
  }
  builder.Int32(1);
  counts.push_back(builder.Size());
  builder.Counted("chunk bytes");
  return {"file transfer",
          [] { return std::make_unique<KelMsgFileTransferType>(); },
          DescribeFileTransfer,
          builder.Get(),
          counts,
          kNegative};
}

std::vector<ValidPayload> AllPayloads() {
  return {AnalysisPayload(), ProcessControlPayload(), FileTransferPayload()};
}

// Unstreams `payload` into a fresh message and checks that it was refused
// with the one report `expected` (any report when null) and left untouched.
void ExpectRefused(const ValidPayload& valid, const Bytes& payload, const char* expected,
                   const std::string& what) {
  SCOPED_TRACE(valid.name + ": " + what);
  const std::unique_ptr<KelMsgBBMessage> fresh = valid.make();
  const std::unique_ptr<KelMsgBBMessage> msg = valid.make();
  FatalErrorCapture capture;
  EXPECT_TRUE(UnstreamIsRefused(*msg, payload));
  ASSERT_EQ(capture.Reports().size(), 1U);
  if (expected != nullptr) {
    EXPECT_EQ(capture.Reports()[0].message, expected);
  }
  EXPECT_EQ(valid.describe(*msg), valid.describe(*fresh));
}

TEST(KelMsgPayloadRefusalTest, WholePayloadsAreTaken) {
  for (const ValidPayload& valid : AllPayloads()) {
    const std::unique_ptr<KelMsgBBMessage> msg = valid.make();
    FatalErrorCapture capture;
    EXPECT_FALSE(UnstreamIsRefused(*msg, valid.payload)) << valid.name;
    EXPECT_TRUE(capture.Reports().empty()) << valid.name;
    EXPECT_EQ(StreamToBytes(*msg), valid.payload) << valid.name;
  }
}

TEST(KelMsgPayloadRefusalTest, EveryCutIsRefused) {
  for (const ValidPayload& valid : AllPayloads()) {
    for (std::size_t length = 0; length < valid.payload.size(); ++length) {
      const Bytes cut(valid.payload.begin(),
                      valid.payload.begin() + static_cast<std::ptrdiff_t>(length));
      ExpectRefused(valid, cut, kCutShort, "cut to " + std::to_string(length));
    }
  }
}

TEST(KelMsgPayloadRefusalTest, ABytePastTheLastFieldIsRefused) {
  for (const ValidPayload& valid : AllPayloads()) {
    Bytes longer = valid.payload;
    longer.push_back('x');
    ExpectRefused(valid, longer, kBytesOver, "one byte over");
  }
}

TEST(KelMsgPayloadRefusalTest, NegativeCountsAreRefused) {
  for (const ValidPayload& valid : AllPayloads()) {
    for (const std::size_t offset : valid.countOffsets) {
      for (const std::int32_t count : {-1, -5, INT_MIN}) {
        ExpectRefused(valid, WithInt32At(valid.payload, offset, count), valid.negativeCountReport,
                      "count " + std::to_string(count) + " at " + std::to_string(offset));
      }
    }
  }
}

TEST(KelMsgPayloadRefusalTest, CountsRunningPastTheEndAreRefused) {
  for (const ValidPayload& valid : AllPayloads()) {
    for (const std::size_t offset : valid.countOffsets) {
      const auto bytesLeft = static_cast<std::int32_t>(valid.payload.size() - offset - 4);
      for (const std::int32_t count : {bytesLeft + 1, INT_MAX}) {
        ExpectRefused(valid, WithInt32At(valid.payload, offset, count), kCutShort,
                      "count " + std::to_string(count) + " at " + std::to_string(offset));
      }
    }
  }
}

TEST(KelMsgPayloadRefusalTest, CountsShorterThanTheirFieldAreRefused) {
  // The fields after the shortened one are then read from the wrong place;
  // whichever check notices first, the payload is refused.
  for (const ValidPayload& valid : AllPayloads()) {
    for (const std::size_t offset : valid.countOffsets) {
      std::int32_t count;
      std::memcpy(&count, valid.payload.data() + offset, 4);
      if (count == 0)
        continue;
      ExpectRefused(valid, WithInt32At(valid.payload, offset, count - 1), nullptr,
                    "count shortened at " + std::to_string(offset));
    }
  }
}

TEST(KelMsgPayloadRefusalTest, KillDocumentCutInsideAConsistentCountIsRefused) {
  const std::string document =
      "<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">SOFT_KILL</Kill>";
  for (std::size_t length = 1; length < document.size(); ++length) {
    SCOPED_TRACE(length);
    KelMsgProcessControlType msg;
    FatalErrorCapture capture;
    EXPECT_TRUE(UnstreamIsRefused(msg, PayloadBuilder().Counted(document.substr(0, length)).Get()));
    ASSERT_EQ(capture.Reports().size(), 1U);
    EXPECT_EQ(capture.Reports()[0].message, "AssertionFailed:hr == S_OK");
    EXPECT_TRUE(msg.m_values.empty());
  }
}

}  // namespace
