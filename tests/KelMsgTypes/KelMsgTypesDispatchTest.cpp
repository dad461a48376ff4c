// The four message types registered with the registry: what a sender frames
// reaches the handler byte for byte, and a payload a type refuses never does.
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <memory>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"

namespace {

struct Delivery {
  std::string type;
  std::string id;
  Bytes payload;  // the received message streamed again
};

class RecordingHandler : public KelMsgBBMessageHandler {
 public:
  explicit RecordingHandler(std::vector<Delivery>* deliveries) : m_deliveries(deliveries) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_deliveries->push_back({msg.Type(), id, StreamToBytes(msg)});
  }

 private:
  std::vector<Delivery>* m_deliveries;
};

class KelMsgTypesDispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (KelMsgBBMessage* proto : std::initializer_list<KelMsgBBMessage*>{
             new KelMsgStringType(), new KelMsgAnalysisMessageType(),
             new KelMsgProcessControlType(), new KelMsgFileTransferType()}) {
      KelMsgBBCallbackManager::AdoptPrototypeAndHandler(proto, new RecordingHandler(&m_deliveries));
    }
    KelMsgBBCallbackManager::SetMessageID("pre-\xC3\xA9");
  }
  void TearDown() override {
    { KelMsgBBCallbackManager teardown; }
    KelMsgBBCallbackManager::SetMessageID("");
    KelMsgBBCallbackManager::AppendMessageToSend(nullptr);
  }

  // Frames `msg` the way the bus does during a send.
  static Bytes Frame(const KelMsgBBMessage& msg) {
    KelMsgBBCallbackManager::AppendMessageToSend(&msg);
    Bytes buffer(
        static_cast<std::size_t>(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage()));
    KelMsgBBCallbackManager::StreamPendingMessage(buffer.data(), static_cast<int>(buffer.size()));
    return buffer;
  }

  // Hands `buffer` to the registry in an allocation of exactly its size.
  static void Deliver(const char* type, const Bytes& buffer) {
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[buffer.size()]);
    std::copy(buffer.begin(), buffer.end(), exact.get());
    KelMsgBBCallbackManager::HandleMessage(type, exact.get(), static_cast<int>(buffer.size()));
  }

  // The framed message with its payload replaced by `payload`.
  static Bytes Reframe(const Bytes& framed, const Bytes& payload) {
    Bytes buffer(framed.begin(), framed.begin() + 4 + framed[0]);
    buffer.insert(buffer.end(), payload.begin(), payload.end());
    return buffer;
  }

  std::vector<Delivery> m_deliveries;
};

TEST_F(KelMsgTypesDispatchTest, EveryTypeArrivesByteForByte) {
  KelMsgStringType text;
  text.SetData("raw\0bytes", 9);
  const KelMsgAnalysisMessageType analysis(KelString("<Progress>\xE2\x82\xAC</Progress>"));
  char chunk[] = "chunk";
  KelMsgFileTransferType transfer;
  transfer.Data().m_dataType = KelMsgFileTransferData::FILE_TRANSFER_CHUNK;
  transfer.Data().m_sourceApplication = KelString("pre");
  transfer.Data().m_targetFileName = KelString("mesh.inp");
  transfer.Data().m_chunkId = 4;
  transfer.Data().m_chunkSize = 5;
  transfer.Data().m_chunkData = chunk;
  const std::shared_ptr<KelMsgProcessControlType> kill =
      KelMsgProcessControlTypeFactory::CreateHardKillMsg();

  const KelMsgBBMessage* sent[] = {&text, &analysis, kill.get(), &transfer};
  for (const KelMsgBBMessage* msg : sent)
    Deliver(msg->Type(), Frame(*msg));

  ASSERT_EQ(m_deliveries.size(), 4U);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(m_deliveries[i].type, sent[i]->Type());
    EXPECT_EQ(m_deliveries[i].id, "pre-\xC3\xA9");
    EXPECT_EQ(m_deliveries[i].payload, StreamToBytes(*sent[i])) << sent[i]->Type();
  }
}

TEST_F(KelMsgTypesDispatchTest, RefusedPayloadsReachNoHandlerAndTheNextOneDoes) {
  const KelMsgAnalysisMessageType analysis(KelString("<Done/>"));
  const std::shared_ptr<KelMsgProcessControlType> kill =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
  const KelMsgFileTransferType transfer;
  const Bytes analysisFrame = Frame(analysis);
  const Bytes killFrame = Frame(*kill);
  const Bytes transferFrame = Frame(transfer);

  struct Case {
    const char* type;
    Bytes buffer;
    const char* report;
  };
  const Case cases[] = {
      {"KelMsgAnalysisMessageType", Bytes(analysisFrame.begin(), analysisFrame.end() - 1),
       "AssertionFailed:byteCount <= bytesLeft"},
      {"KelMsgProcessControlType",
       Reframe(killFrame,
               PayloadBuilder().Counted("<Stop type=\"symconst\">SOFT_KILL</Stop>").Get()),
       "AssertionFailed:rootTagName == \"Kill\""},
      {"KelMsgProcessControlType", Reframe(killFrame, PayloadBuilder().Int32(0).Get()),
       "AssertionFailed:len > 0"},
      {"KelMsgFileTransferType",
       Reframe(transferFrame, WithInt32At(StreamToBytes(transfer), 40, -3)),
       "AssertionFailed:byteCount >= 0"},
  };
  for (const Case& c : cases) {
    FatalErrorCapture capture;
    Deliver(c.type, c.buffer);
    EXPECT_TRUE(m_deliveries.empty()) << c.report;
    EXPECT_EQ(capture.Messages(), std::vector<std::string>{c.report});
  }

  Deliver("KelMsgProcessControlType", killFrame);
  ASSERT_EQ(m_deliveries.size(), 1U);
  EXPECT_EQ(m_deliveries[0].payload, StreamToBytes(*kill));
}

}  // namespace
