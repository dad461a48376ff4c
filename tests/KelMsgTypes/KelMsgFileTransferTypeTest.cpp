#include <KelMsgFeaMessaging/KelMsgFileTransferData.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>

#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "PayloadTestSupport.h"

namespace {

using Data = KelMsgFileTransferData;

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

TEST(KelMsgFileTransferTypeTest, DefaultMessageAndCloneAreFortyFourZeroBytes) {
  const KelMsgFileTransferType fresh;
  KelMsgFileTransferType filled;
  FillNames(filled.Data());
  const std::unique_ptr<const KelMsgBBMessage> clone(filled.Clone());
  for (const KelMsgBBMessage* msg : {static_cast<const KelMsgBBMessage*>(&fresh), clone.get()}) {
    EXPECT_STREQ(msg->Type(), "KelMsgFileTransferType");
    EXPECT_EQ(StreamToBytes(*msg), Bytes(44, 0));
    EXPECT_EQ(dynamic_cast<const KelMsgFileTransferType*>(msg)->Data().m_chunkData, nullptr);
  }
}

// The chunk is lent from the stack: freeing it with the message would fail.
TEST(KelMsgFileTransferTypeTest, ChunkLayout) {
  char chunk[] = {'a', 'b', 'c'};
  KelMsgFileTransferType msg;
  msg.Data().m_dataType = Data::FILE_TRANSFER_CHUNK;
  msg.Data().m_chunkId = 7;
  msg.Data().m_chunkSize = 3;
  msg.Data().m_chunkData = chunk;
  EXPECT_EQ(StreamToBytes(msg),
            Hex({3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,   0,   0,  0,
                 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7, 0, 0, 0, 3, 0, 0, 0, 'a', 'b', 'c'}));
}

TEST(KelMsgFileTransferTypeTest, NamesTravelInRecordOrderAndRoundTrip) {
  KelMsgFileTransferType sent;
  FillNames(sent.Data());
  const Bytes payload = StreamToBytes(sent);
  ASSERT_EQ(payload, PayloadBuilder()
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
                         .Get());

  KelMsgFileTransferType received;
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  EXPECT_EQ(received.Data().m_chunkData, nullptr) << "no chunk bytes, nothing allocated";
  EXPECT_EQ(StreamToBytes(received), payload);
}

// The payload lives only during Unstream (the sanitizer sees a message that
// keeps pointing into it); the leak checker sees a first copy not freed.
TEST(KelMsgFileTransferTypeTest, ReceivedChunksAreOwnedCopies) {
  KelMsgFileTransferType received;
  for (const std::string& chunk : {std::string(70000, '\x5A'), std::string("z\0z", 3)}) {
    const Bytes payload =
        PayloadBuilder().Int32(3).Raw(std::string(32, '\0')).Int32(12).Counted(chunk).Get();
    ASSERT_FALSE(UnstreamIsRefused(received, payload));
    ASSERT_EQ(received.Data().m_chunkSize, static_cast<int>(chunk.size()));
    EXPECT_EQ(std::memcmp(received.Data().m_chunkData, chunk.data(), chunk.size()), 0);
    EXPECT_EQ(StreamToBytes(received), payload);
  }
}

// A negative chunk size is taken as the layout says: no chunk bytes follow,
// and the message streams again as it came.
TEST(KelMsgFileTransferTypeTest, NegativeChunkSizeCarriesNoBytes) {
  const Bytes payload =
      PayloadBuilder().Int32(3).Raw(std::string(32, '\0')).Int32(1).Int32(-5).Get();
  KelMsgFileTransferType received;
  ASSERT_FALSE(UnstreamIsRefused(received, payload));
  EXPECT_EQ(received.Data().m_chunkSize, -5);
  EXPECT_EQ(received.Data().m_chunkData, nullptr);
  EXPECT_EQ(StreamToBytes(received), payload);
}

TEST(KelMsgFileTransferTypeTest, PrintWritesTwoLinesWithoutFlushing) {
  KelMsgFileTransferType msg;
  FillNames(msg.Data());
  MemoryStream out;
  msg.Print(out.Get(), "ft: ");
  msg.Print(out.Get(), nullptr);
  EXPECT_EQ(out.Flushed(), "");
  std::fflush(out.Get());
  EXPECT_EQ(out.Flushed(),
            "ft: Message Type: KelMsgFileTransferType\nft:    DataType: 2\n"
            "Message Type: KelMsgFileTransferType\n   DataType: 2\n");
}

TEST(KelMsgFileTransferTypeDeathTest, CallerContracts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  char chunk[4] = {};
  char buffer[64];
  KelMsgFileTransferType msg;
  msg.Data().m_chunkSize = 4;
  msg.Data().m_chunkData = chunk;
  EXPECT_DEATH(msg.Stream(buffer, 47), "AssertionFailed:size >= RequiredBufferSize\\(\\)");
  msg.Data().m_chunkData = nullptr;
  EXPECT_DEATH(msg.Stream(buffer, 64),
               "AssertionFailed:m_record.m_chunkData != nullptr \\|\\| m_record.m_chunkSize <= 0");
}

}  // namespace
