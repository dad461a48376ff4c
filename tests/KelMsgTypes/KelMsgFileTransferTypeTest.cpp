#include <KelMsgFeaMessaging/KelMsgFileTransferData.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include <cstring>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/mem_Operators.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

using Data = KelMsgFileTransferData;

void ExpectDefaultRecord(const Data& record) {
  EXPECT_EQ(record.m_dataType, 0);
  for (const KelString* name :
       {&record.m_sourceApplication, &record.m_sourceBaseDir, &record.m_sourceJobDir,
        &record.m_sourceFileName, &record.m_targetApplication, &record.m_targetBaseDir,
        &record.m_targetJobDir, &record.m_targetFileName}) {
    EXPECT_STREQ(name->GetUTF8(), "");
  }
  EXPECT_EQ(record.m_chunkId, 0);
  EXPECT_EQ(record.m_chunkSize, 0);
  EXPECT_EQ(record.m_chunkData, nullptr);
}

// A notify record with eight distinct names, some of them non-ASCII.
void FillNames(Data& record) {
  record.m_dataType = Data::FILE_TRANSFER_NOTIFY;
  record.m_sourceApplication = KelString("pre");
  record.m_sourceBaseDir = KelString("/scratch/\xC3\xA9tude");
  record.m_sourceJobDir = KelString("job-7");
  record.m_sourceFileName = KelString("mesh.inp");
  record.m_targetApplication = KelString("solver");
  record.m_targetBaseDir = KelString("");
  record.m_targetJobDir = KelString("job-7/in");
  record.m_targetFileName = KelString("\xE2\x82\xAC.dat");
  record.m_chunkId = -1;
}

TEST(KelMsgFileTransferTypeTest, DefaultMessageIsFortyFourZeroBytes) {
  const KelMsgFileTransferType msg;
  EXPECT_STREQ(msg.Type(), "KelMsgFileTransferType");
  ExpectDefaultRecord(msg.Data());
  EXPECT_EQ(msg.RequiredBufferSize(), 44);
  EXPECT_EQ(StreamToBytes(msg), Bytes(44, 0));
}

TEST(KelMsgFileTransferTypeTest, ChunkLayout) {
  char chunk[] = {'a', 'b', 'c'};
  KelMsgFileTransferType msg;
  msg.Data().m_dataType = Data::FILE_TRANSFER_CHUNK;
  msg.Data().m_chunkId = 7;
  msg.Data().m_chunkSize = 3;
  msg.Data().m_chunkData = chunk;
  EXPECT_EQ(msg.RequiredBufferSize(), 47);
  EXPECT_EQ(StreamToBytes(msg),
            Hex({3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,   0,   0,  0,
                 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}));
}

TEST(KelMsgFileTransferTypeTest, CompletionLayout) {
  KelMsgFileTransferType msg;
  msg.Data().m_dataType = Data::FILE_TRANSFER_RECEIVE_COMPLETION;
  msg.Data().m_sourceApplication = KelString("pre");
  msg.Data().m_chunkId = -1;
  const Bytes expected = PayloadBuilder()
                             .Int32(6)
                             .Counted("pre")
                             .Raw(std::string(28, '\0'))
                             .Raw("\xFF\xFF\xFF\xFF")
                             .Int32(0)
                             .Get();
  EXPECT_EQ(StreamToBytes(msg), expected);
}

TEST(KelMsgFileTransferTypeTest, NamesTravelInRecordOrderAndRoundTrip) {
  KelMsgFileTransferType sent;
  FillNames(sent.Data());
  const Bytes payload = StreamToBytes(sent);
  const Bytes expected = PayloadBuilder()
                             .Int32(2)
                             .Counted("pre")
                             .Counted("/scratch/\xC3\xA9tude")
                             .Counted("job-7")
                             .Counted("mesh.inp")
                             .Counted("solver")
                             .Counted("")
                             .Counted("job-7/in")
                             .Counted("\xE2\x82\xAC.dat")
                             .Int32(-1)
                             .Int32(0)
                             .Get();
  ASSERT_EQ(payload, expected);
  EXPECT_EQ(sent.RequiredBufferSize(), static_cast<int>(expected.size()));

  KelMsgFileTransferType received;
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  const Data& record = received.Data();
  EXPECT_STREQ(record.m_sourceBaseDir.GetUTF8(), "/scratch/\xC3\xA9tude");
  EXPECT_STREQ(record.m_targetFileName.GetUTF8(), "\xE2\x82\xAC.dat");
  EXPECT_EQ(record.m_chunkId, -1);
  EXPECT_EQ(record.m_chunkData, nullptr) << "no chunk bytes, nothing allocated";
  EXPECT_EQ(StreamToBytes(received), payload);
}

TEST(KelMsgFileTransferTypeTest, ReceivedChunkIsCopiedAndOwned) {
  std::string content(70000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i)
    content[i] = static_cast<char>(i * 7);
  Bytes payload = PayloadBuilder()
                      .Int32(3)
                      .Raw(std::string(32, '\0'))
                      .Int32(12)
                      .Int32(static_cast<std::int32_t>(content.size()))
                      .Raw(content)
                      .Get();
  KelMsgFileTransferType received;
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  const Data& record = received.Data();
  EXPECT_EQ(record.m_chunkId, 12);
  ASSERT_EQ(record.m_chunkSize, 70000);
  EXPECT_EQ(std::memcmp(record.m_chunkData, content.data(), content.size()), 0);
  EXPECT_EQ(StreamToBytes(received), payload);

  // A second payload frees the first copy (the leak checker would see it).
  payload = PayloadBuilder().Int32(3).Raw(std::string(32, '\0')).Int32(13).Int32(2).Raw("zz").Get();
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  EXPECT_EQ(std::string(record.m_chunkData, 2), "zz");
}

TEST(KelMsgFileTransferTypeTest, LentChunkBufferOutlivesTheMessage) {
  auto* buffer = static_cast<char*>(mem_OperatorNewThrowBuiltin(4));
  std::memcpy(buffer, "data", 4);
  {
    KelMsgFileTransferType msg;
    msg.Data().m_dataType = Data::FILE_TRANSFER_CHUNK;
    msg.Data().m_chunkSize = 4;
    msg.Data().m_chunkData = buffer;
    EXPECT_EQ(StreamToBytes(msg).size(), 48U);
  }
  // Reading it is a use after free under the sanitizer if the message freed it.
  EXPECT_EQ(std::string(buffer, 4), "data");
  mem_Free(buffer);
}

TEST(KelMsgFileTransferTypeTest, CloneHasTheDefaultRecord) {
  KelMsgFileTransferType sent;
  FillNames(sent.Data());
  const std::unique_ptr<KelMsgBBMessage> clone(sent.Clone());
  EXPECT_STREQ(clone->Type(), "KelMsgFileTransferType");
  ExpectDefaultRecord(dynamic_cast<const KelMsgFileTransferType&>(*clone).Data());
}

TEST(KelMsgFileTransferTypeTest, PrintWritesTwoLinesWithoutFlushing) {
  KelMsgFileTransferType msg;
  FillNames(msg.Data());
  MemoryStream out;
  msg.Print(out.Get(), "ft: ");
  EXPECT_EQ(out.Flushed(), "");
  EXPECT_EQ(out.Text(), "ft: Message Type: KelMsgFileTransferType\nft:    DataType: 2\n");

  MemoryStream plain;
  msg.Print(plain.Get(), nullptr);
  EXPECT_EQ(plain.Text(), "Message Type: KelMsgFileTransferType\n   DataType: 2\n");
}

TEST(KelMsgFileTransferTypeDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char chunk[4] = {};
  char buffer[64];
  KelMsgFileTransferType msg;
  msg.Data().m_chunkSize = 4;
  msg.Data().m_chunkData = chunk;
  EXPECT_DEATH(msg.Stream(buffer, 47), "AssertionFailed:size >= RequiredBufferSize\\(\\)");
  msg.Data().m_chunkSize = -4;
  EXPECT_DEATH(msg.Stream(buffer, 64), "AssertionFailed:m_record.m_chunkSize >= 0");
  msg.Data().m_chunkSize = 4;
  msg.Data().m_chunkData = nullptr;
  EXPECT_DEATH(msg.Stream(buffer, 64),
               "AssertionFailed:m_record.m_chunkData != nullptr \\|\\| m_record.m_chunkSize == 0");
}

}  // namespace
