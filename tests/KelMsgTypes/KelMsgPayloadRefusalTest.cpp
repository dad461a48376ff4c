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

struct ValidPayload {
  const char* name;
  std::function<KelMsgBBMessage*()> make;
  Bytes payload;
  std::vector<std::size_t> countOffsets;  // where the 32-bit byte counts are
  const char* negativeCountReport;
};

std::vector<ValidPayload> ValidPayloads() {
  PayloadBuilder transfer;
  std::vector<std::size_t> counts;
  transfer.Int32(3);
  for (const char* name : {"pre", "/base", "", "mesh.inp", "solver", "/tmp", "job", "m.inp"}) {
    counts.push_back(transfer.Size());
    transfer.Counted(name);
  }
  // The chunk count is not among the counts: one of 0 or less carries no bytes.
  transfer.Int32(1).Counted("chunk bytes");
  return {
      {"analysis",
       [] { return new KelMsgAnalysisMessageType(); },
       PayloadBuilder().Counted("<Progress>42</Progress>").Get(),
       {0},
       kNegative},
      {"process control",
       [] { return new KelMsgProcessControlType(); },
       PayloadBuilder().Counted("<Kill type=\"symconst\">HARD_KILL</Kill>").Get(),
       {0},
       "AssertionFailed:len > 0"},
      {"file transfer", [] { return new KelMsgFileTransferType(); }, transfer.Get(), counts,
       kNegative},
  };
}

struct Damage {
  Bytes payload;
  const char* report;  // null: whichever check notices first
  std::string what;
};

// Every cut, one byte over, and each count made negative, too long, or one
// short (the fields after it are then read from the wrong place).
std::vector<Damage> DamagedForms(const ValidPayload& valid) {
  const Bytes& whole = valid.payload;
  std::vector<Damage> damaged;
  for (std::size_t length = 0; length < whole.size(); ++length) {
    damaged.push_back({Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length)),
                       kCutShort, "cut to " + std::to_string(length)});
  }
  Bytes longer = whole;
  longer.push_back('x');
  damaged.push_back({longer, "AssertionFailed:bytesLeft == 0", "one byte over"});
  for (const std::size_t offset : valid.countOffsets) {
    std::int32_t count;
    std::memcpy(&count, whole.data() + offset, 4);
    const auto bytesLeft = static_cast<std::int32_t>(whole.size() - offset - 4);
    const std::string at = " at " + std::to_string(offset);
    for (const std::int32_t bad : {-1, INT_MIN})
      damaged.push_back({WithInt32At(whole, offset, bad), valid.negativeCountReport, "neg" + at});
    for (const std::int32_t bad : {bytesLeft + 1, INT_MAX})
      damaged.push_back({WithInt32At(whole, offset, bad), kCutShort, "too long" + at});
    if (count > 0)
      damaged.push_back({WithInt32At(whole, offset, count - 1), nullptr, "one short" + at});
  }
  return damaged;
}

TEST(KelMsgPayloadRefusalTest, DamagedPayloadsAreRefusedOnceAndChangeNothing) {
  for (const ValidPayload& valid : ValidPayloads()) {
    const std::unique_ptr<KelMsgBBMessage> msg(valid.make());
    ASSERT_FALSE(UnstreamIsRefused(*msg, valid.payload)) << valid.name;
    ASSERT_EQ(StreamToBytes(*msg), valid.payload) << valid.name;
    for (const Damage& damage : DamagedForms(valid)) {
      SCOPED_TRACE(std::string(valid.name) + ": " + damage.what);
      FatalErrorCapture capture;
      EXPECT_TRUE(UnstreamIsRefused(*msg, damage.payload));
      ASSERT_EQ(capture.Reports().size(), 1U);
      if (damage.report != nullptr) {
        EXPECT_EQ(capture.Reports()[0].message, damage.report);
      }
      EXPECT_EQ(StreamToBytes(*msg), valid.payload);
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
    ASSERT_EQ(capture.Messages(), std::vector<std::string>{"AssertionFailed:hr == S_OK"});
    EXPECT_TRUE(msg.m_values.empty());
  }
}

}  // namespace
