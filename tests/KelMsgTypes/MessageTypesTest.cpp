// The message types against what the registry and the printing handler
// need of every message, over samples of each type; then the rules that only
// one type has.  Payloads reach Unstream in allocations of exactly their
// size, so the sanitizer sees any read past their end.
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <KelMsgFeaMessaging/KelMsgTransferReceiptType.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "KelMsgCheck.h"
#include "MemoryStream.h"

namespace {

using Message = std::unique_ptr<KelMsgBBMessage>;
using Reports = std::vector<std::string>;

template <class T>
Message New() {
  return std::make_unique<T>();
}

// Payload fields in wire form.
std::string Int32(std::int32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), 4);
}
std::string Counted(const std::string& bytes) {
  return Int32(static_cast<std::int32_t>(bytes.size())) + bytes;
}

// What msg.Stream writes, given room to spare that it must leave alone.
std::string Streamed(const KelMsgBBMessage& msg) {
  const auto size = static_cast<std::size_t>(msg.RequiredBufferSize());
  std::string buffer(size + 8, '\xEE');
  msg.Stream(buffer.data(), static_cast<int>(buffer.size()));
  EXPECT_EQ(buffer.substr(size), std::string(8, '\xEE'));
  return buffer.substr(0, size);
}

bool Refuses(KelMsgBBMessage& msg, const std::string& payload) {
  const std::unique_ptr<char[]> exact(new char[payload.size()]);
  payload.copy(exact.get(), payload.size());
  KelMsgClearRefusal();
  msg.Unstream(exact.get(), static_cast<int>(payload.size()));
  return KelMsgWasRefused();
}

constexpr char kNegative[] = "AssertionFailed:byteCount >= 0";
constexpr char kCutShort[] = "AssertionFailed:byteCount <= bytesLeft";

// What the types differ in beyond their samples.
struct Kind {
  const char* type;
  Message (*prototype)();  // what the registry clones on receipt
  const char* field;       // the field Print shows after the type line; none: the document
  const char* nullPrefix;  // what a null prefix prints as
  bool flushes;            // Print flushes the stream
  bool cloneCopies;        // Clone carries the content; otherwise a clone is empty
  std::size_t countsAt;    // where the payload's counted strings start ...
  int counts;              // ... and how many; with none, any length is a payload
  const char* negativeCount;
};

// Indices into kKinds.
enum { kRaw, kAnalysis, kControl, kTransfer, kReceipt };
const Kind kKinds[] = {
    {"KelMsgStringType", New<KelMsgStringType>, "size", "", true, false, 0, 0, nullptr},
    {"KelMsgAnalysisMessageType", New<KelMsgAnalysisMessageType>, nullptr, "DefaultPfix", true,
     true, 0, 1, kNegative},
    {"KelMsgProcessControlType", New<KelMsgProcessControlType>, "Content", "", true, true, 0, 1,
     "AssertionFailed:len > 0"},
    {"KelMsgFileTransferType", New<KelMsgFileTransferType>, "DataType", "", false, false, 4, 8,
     kNegative},
    {"KelMsgTransferReceiptType", New<KelMsgTransferReceiptType>, "Step", "", false, false, 4, 1,
     kNegative},
};

// Print's first lines, with the prefix "> ".
std::string PrintedHead(const Kind& kind) {
  if (kind.field == nullptr)
    return "Analysis Message Prefix> \n";
  return "> Message Type: " + std::string(kind.type) + "\n>    " + kind.field + ": ";
}

struct Sample {
  int kind;
  std::shared_ptr<const KelMsgBBMessage> sent;  // null: the one received from `payload`
  std::string payload;                          // what `sent` streams, byte for byte
  std::string printed;                          // Print's lines after the kind's head
};

// The message as the registry builds it on receipt.
Message Received(const Kind& kind, const std::string& payload) {
  Message msg(kind.prototype()->Clone());
  EXPECT_FALSE(Refuses(*msg, payload));
  return msg;
}

std::shared_ptr<const KelMsgBBMessage> Raw(const char* bytes, int size) {
  auto msg = std::make_shared<KelMsgStringType>();
  msg->SetData(bytes, size);
  return msg;
}

std::string Kill(const char* value) {
  return "<?xml version=\"1.0\" encoding=\"utf-8\"?><Kill type=\"symconst\">" + std::string(value) +
         "</Kill>";
}

// A receipt's payload with empty strings and a count below 2^32 times `high`.
std::string Receipt(std::int32_t step, std::int32_t high, std::int32_t failure) {
  return Int32(step) + Counted("") + Int32(0) + Int32(high) + Counted("") + Int32(failure) +
         Counted("");
}

std::vector<Sample> Samples() {
  std::string notify = Int32(2);
  for (const char* name :
       {"pre", "/scratch/\xC3\xA9tude", "job-7", "m.inp", "solver", "", "job-7/in", "\xE2\x82\xAC"})
    notify += Counted(name);
  const std::string noNames(32, '\0');
  std::vector<Sample> samples = {
      {kRaw, Raw("ab\0z", 4), std::string("ab\0z", 4), "4\n>    data[0]: a\n>    data[3]: z\n"},
      {kRaw, Raw("z", 1), "z", "1\n>    data[0]: z\n>    data[0]: z\n"},
      {kRaw, Raw(nullptr, 0), "", "0\n"},
      {kAnalysis, std::make_shared<KelMsgAnalysisMessageType>(KelString("x")), Int32(1) + "x",
       "x\n"},
      {kControl, KelMsgProcessControlTypeFactory::CreateSoftKillMsg(),
       Int32(76) + Kill("SOFT_KILL"), Kill("SOFT_KILL") + "\n"},
      {kControl, KelMsgProcessControlTypeFactory::CreateHardKillMsg(),
       Int32(76) + Kill("HARD_KILL"), Kill("HARD_KILL") + "\n"},
      {kTransfer, New<KelMsgFileTransferType>(), std::string(44, '\0'), "0\n"},
      {kTransfer, nullptr, Int32(3) + noNames + Int32(7) + Int32(3) + "abc", "3\n"},
      // A chunk size below 0 carries no bytes, like 0, and is no reason to refuse.
      {kTransfer, nullptr, Int32(3) + noNames + Int32(1) + Int32(-5), "3\n"},
      {kTransfer, nullptr, notify + Int32(-1) + Int32(0), "2\n"},
      {kReceipt, New<KelMsgTransferReceiptType>(), Receipt(1, 0, 0), "1, bytes: 0, failure: 0\n"},
      // Both halves of the count.
      {kReceipt, nullptr,
       Int32(3) + Counted("job/x.bin") + Int32(2) + Int32(1) + Counted("ab") + Int32(2) +
           Counted("No space left on device"),
       "3, bytes: 4294967298, failure: 2, sha256: ab\n"},
  };
  for (Sample& sample : samples) {
    if (sample.sent == nullptr)
      sample.sent = Received(kKinds[sample.kind], sample.payload);
  }
  return samples;
}

TEST(MessageTypes, EverySampleStreamsPrintsClonesAndIsReceived) {
  const std::vector<Sample> samples = Samples();
  for (const Sample& sample : samples) {
    const Kind& kind = kKinds[sample.kind];
    SCOPED_TRACE(PrintedHead(kind) + sample.printed);
    EXPECT_STREQ(sample.sent->Type(), kind.type);
    EXPECT_EQ(sample.sent->RequiredBufferSize(), static_cast<int>(sample.payload.size()));
    EXPECT_EQ(Streamed(*sample.sent), sample.payload);
    for (const Sample& other : samples)
      EXPECT_EQ(sample.sent->SameType(*other.sent), sample.kind == other.kind);

    const Message received = Received(kind, sample.payload);
    EXPECT_EQ(Streamed(*received), sample.payload);
    const Message clone(received->Clone());
    EXPECT_STREQ(clone->Type(), kind.type);
    EXPECT_EQ(Streamed(*clone), kind.cloneCopies ? sample.payload : Streamed(*kind.prototype()));
    for (const char* prefix : {"> ", static_cast<const char*>(nullptr)}) {
      const std::string printed = std::regex_replace(
          PrintedHead(kind) + sample.printed, std::regex("> "), prefix ? prefix : kind.nullPrefix);
      MemoryStream out;
      received->Print(out.Get(), prefix);
      EXPECT_EQ(out.Flushed(), kind.flushes ? printed : "");
      std::fflush(out.Get());
      EXPECT_EQ(out.Flushed(), printed);
    }
  }
}

// Every cut, one byte over, and each count negative or past the end.
TEST(MessageTypes, DamagedPayloadsAreRefusedOnceAndChangeNothing) {
  for (const Sample& sample : Samples()) {
    const Kind& kind = kKinds[sample.kind];
    const std::string& whole = sample.payload;
    const bool anyLength = kind.counts == 0;
    const auto expect = [&](const std::string& damaged, const char* report) {
      SCOPED_TRACE(PrintedHead(kind) + sample.printed + " as " + damaged);
      const Message msg = Received(kind, whole);
      FatalErrorCapture capture;
      EXPECT_EQ(Refuses(*msg, damaged), !anyLength);
      EXPECT_EQ(capture.Messages(), anyLength ? Reports{} : Reports{report});
      EXPECT_EQ(Streamed(*msg), anyLength ? damaged : whole);
    };
    for (std::size_t length = 0; length < whole.size(); ++length)
      expect(whole.substr(0, length), kCutShort);
    expect(whole + "x", "AssertionFailed:bytesLeft == 0");
    std::size_t at = kind.countsAt;
    for (int i = 0; i < kind.counts; ++i) {
      const auto left = static_cast<std::int32_t>(whole.size() - at - 4);
      for (const std::int32_t bad : {-1, INT_MIN, left + 1, INT_MAX})
        expect(whole.substr(0, at) + Int32(bad) + whole.substr(at + 4),
               bad < 0 ? kind.negativeCount : kCutShort);
      std::int32_t count;
      std::memcpy(&count, whole.data() + at, 4);
      at += 4 + static_cast<std::size_t>(count);
    }
  }
}

// A receipt holds a known step and failure code and no negative count.
TEST(MessageTypes, ReceiptsOutsideTheirCodesAreRefused) {
  const char* const kStep = "AssertionFailed:KnownStep(step)";
  const char* const kFailure = "AssertionFailed:KnownFailure(receipt.m_failure)";
  const std::pair<std::string, const char*> cases[] = {
      {Receipt(0, 0, 0), kStep},
      {Receipt(4, 0, 0), kStep},
      {Receipt(1, 0, -1), kFailure},
      {Receipt(1, 0, 6), kFailure},
      {Receipt(1, -1, 0), "AssertionFailed:high >= 0"}};
  for (const auto& [payload, report] : cases) {
    const Message msg = Received(kKinds[kReceipt], Receipt(3, 1, 5));
    FatalErrorCapture capture;
    EXPECT_TRUE(Refuses(*msg, payload));
    EXPECT_EQ(capture.Messages(), Reports{report});
    EXPECT_EQ(Streamed(*msg), Receipt(3, 1, 5));
  }
}

TEST(MessageTypes, KillDocumentsAreTakenOnlyWhenEveryRuleHolds) {
  // document, report (null: taken)
  const std::pair<const char*, const char*> cases[] = {
      {"<Kill\n type='symconst'><![CDATA[HARD_KILL]]><!-- now --></Kill>\n", nullptr},
      {"", "AssertionFailed:len > 0"},
      {"<Kill type=\"symconst\">HARD_KILL", "AssertionFailed:hr == S_OK"},
      {"<kill type=\"symconst\">HARD_KILL</kill>", "AssertionFailed:rootTagName == \"Kill\""},
      {"<Kill type=\"symconst\" now=\"1\">HARD_KILL</Kill>", "AssertionFailed:atts.size() == 1"},
      {"<Kill kind=\"symconst\">HARD_KILL</Kill>", "AssertionFailed:itr != atts.end()"},
      {"<Kill type=\"SymConst\">HARD_KILL</Kill>", "AssertionFailed:killType == \"symconst\""},
      {"<Kill type=\"symconst\">hard_kill</Kill>",
       "AssertionFailed:killVal == \"SOFT_KILL\" || killVal == \"HARD_KILL\""}};
  for (const auto& [document, report] : cases) {
    KelMsgProcessControlType received;
    FatalErrorCapture capture;
    EXPECT_EQ(Refuses(received, Counted(document)), report != nullptr);
    EXPECT_EQ(capture.Messages(), report ? Reports{report} : Reports{}) << document;
    EXPECT_STREQ(received.GetVal(KelString("Kill")).GetUTF8(), report ? "" : "HARD_KILL");
    EXPECT_EQ(received.isPresent(KelString("Kill")), report == nullptr) << "GetVal adds nothing";
  }
}

TEST(MessageTypes, KindOfAnAnalysisDocumentIsItsRootName) {
  // A name of one character in four bytes, then one that is not UTF-8: 0xF5
  // never starts it, and with the continuation bytes after it the name reads
  // as one character of nine bytes.
  const char* const kNotUtf8 = "\xF5\x9D\x9D\x9D\x9D\x9D\x9D\x9D\x9D";
  // document, root name, kind, reports
  const std::tuple<std::string, const char*, const char*, Reports> cases[] = {
      {"<?xml version=\"1.0\"?><!-- c --><Job n=\"3\"><x/></Job>", "Job", "Job", {}},
      {"<\xF0\x9F\x98\x80/>", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80", {}},
      {std::string("<") + kNotUtf8 + "/>", kNotUtf8, "", {"AssertionFailed:s1 == len"}},
      {"<Open>", "", "", {"AssertionFailed:hr == S_OK", "AssertionFailed:hr == S_OK"}}};
  for (const auto& [text, root, kind, reports] : cases) {
    FatalErrorCapture capture;
    const KelString document(text.c_str());
    EXPECT_STREQ(KelMsgAnalysisMessageType::GetRootElemNameFromXml(document).GetUTF8(), root);
    EXPECT_STREQ(KelMsgAnalysisMessageType().GetTypeFromXmlBuffer(document).GetUTF8(), kind);
    EXPECT_EQ(capture.Messages(), reports) << text;
  }
}

// Both readers take counted strings in turn: a NUL ends the text, not the
// field.  The bounded one refuses a count past its end and changes nothing.
TEST(MessageTypes, CountedStringsAreReadInTurn) {
  const std::string payload = Counted("solver") + Counted(std::string("\xC3\xA9\0z", 4));
  int unbounded = 0;
  int bounded = 0;
  for (const auto& [text, end] : {std::pair{"solver", 10}, std::pair{"\xC3\xA9", 18}}) {
    KelString first("old");
    KelString second("old");
    KelMsgStreamUtils::UnstreamKelString(first, payload.data(), unbounded);
    EXPECT_TRUE(KelMsgStreamUtils::UnstreamKelString(second, payload.data(), 18, bounded));
    EXPECT_STREQ(first.GetUTF8(), text);
    EXPECT_STREQ(second.GetUTF8(), text);
    EXPECT_EQ(std::pair(unbounded, bounded), std::pair(end, end));
  }
  FatalErrorCapture capture;
  KelString kept("kept");
  int offset = 10;
  EXPECT_FALSE(KelMsgStreamUtils::UnstreamKelString(kept, payload.data(), 17, offset));
  EXPECT_EQ(capture.Messages(), Reports{kCutShort});
  EXPECT_STREQ(kept.GetUTF8(), "kept");
  EXPECT_EQ(offset, 10);
}

// Lent bytes are read when streaming.  Received bytes are the message's
// until it takes others (the leak checker sees any it does not free), and
// never outlive the payload they came with.
TEST(MessageTypes, LentBytesAreReadWhenStreamingAndReceivedOnesAreOwned) {
  char lent[] = "abc";
  KelMsgStringType raw;
  raw.SetData(lent, 3);
  lent[0] = 'X';
  EXPECT_EQ(Streamed(raw), "Xbc");
  KelMsgFileTransferType transfer;
  for (const char* bytes : {"1", "22"}) {
    EXPECT_FALSE(Refuses(raw, bytes));
    EXPECT_FALSE(Refuses(transfer, Int32(3) + std::string(32, '\0') + Int32(1) + Counted(bytes)));
  }
  raw.SetData(lent, 1);
  EXPECT_EQ(Streamed(raw), "X");
  ASSERT_FALSE(Refuses(transfer, Int32(6) + std::string(32, '\0') + Int32(-1) + Int32(0)));
  EXPECT_EQ(transfer.Data().m_chunkData, nullptr);
}

TEST(MessageTypesDeathTest, CallerContractsEndTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::set<int> tried;
  for (const Sample& sample : Samples()) {
    if (sample.payload.empty() || !tried.insert(sample.kind).second)
      continue;
    std::string buffer(sample.payload.size() - 1, '\0');
    EXPECT_DEATH(sample.sent->Stream(buffer.data(), static_cast<int>(buffer.size())),
                 "AssertionFailed:size >= RequiredBufferSize\\(\\)");
  }
  KelMsgStringType raw;
  EXPECT_DEATH(raw.SetData("abc", -1), "AssertionFailed:size >= 0");
  EXPECT_DEATH(raw.SetData(nullptr, 1), "AssertionFailed:data != nullptr \\|\\| size == 0");
  EXPECT_DEATH(KelMsgAnalysisMessageType(KelString("")),
               "AssertionFailed:xmlBuffer.GetLengthInByte\\(\\) > 0");
  EXPECT_DEATH(KelMsgAnalysisMessageType().RequiredBufferSize(),
               "AssertionFailed:m_msgBuffer.GetLengthInByte\\(\\) > 0");
  KelMsgProcessControlType request;
  EXPECT_DEATH(request.RequiredBufferSize(),
               "AssertionFailed:m_xmlMessage.GetLengthInChar\\(\\) > 0");
  EXPECT_DEATH(KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(request),
               "AssertionFailed:pcType.m_processControlType == "
               "KelMsgProcessControlType::PROCESS_CONTROL_KILL");
  request.m_processControlType = KelMsgProcessControlType::PROCESS_CONTROL_KILL;
  request.m_values[KelString("Kill")] = KelString("hard_kill");
  EXPECT_DEATH(KelMsgProcessControlEncoder::ExternalizeProcessControlMsg(request),
               "AssertionFailed:\"Unknown Kill Type in KelMsgProcessControlType\" == 0");
  KelMsgFileTransferType chunkless;
  chunkless.Data().m_chunkSize = 1;
  EXPECT_DEATH(Streamed(chunkless),
               "AssertionFailed:m_record.m_chunkData != nullptr \\|\\| m_record.m_chunkSize <= 0");
  const std::string negative = Int32(-2);
  KelString target;
  int offset = 0;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(target, negative.data(), offset),
               "AssertionFailed:count >= 0");
  offset = 5;
  EXPECT_DEATH(KelMsgStreamUtils::UnstreamKelString(target, negative.data(), 4, offset),
               "AssertionFailed:0 <= offset && offset <= size");
}

}  // namespace
