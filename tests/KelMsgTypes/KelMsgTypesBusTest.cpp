// The four message types between two processes over a real broker: what one
// process sends arrives in the other byte for byte, and a payload the
// receiving type refuses reaches no handler while the receiver keeps going.
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FatalErrorCapture.h"
#include "PayloadTestSupport.h"
#include "TestBroker.h"

using namespace std::chrono_literals;

namespace {

struct Delivery {
  std::string type;
  std::string id;
  Bytes payload;          // the received message streamed again
  std::string killValue;  // process control only: the internalized request
};

class RecordingHandler : public KelMsgBBMessageHandler {
 public:
  RecordingHandler(std::vector<Delivery>* deliveries, int* ended)
      : m_deliveries(deliveries), m_ended(ended) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    Delivery delivery{msg.Type(), id, StreamToBytes(msg), ""};
    if (const auto* pc = dynamic_cast<const KelMsgProcessControlType*>(&msg)) {
      delivery.killValue = pc->GetVal(KelString("Kill")).GetUTF8();
    }
    m_deliveries->push_back(delivery);
    *m_ended = 0;
  }

 private:
  std::vector<Delivery>* m_deliveries;
  int* m_ended;
};

// Any bytes under any type name: what a foreign or faulty sender may send.
class ForgedMessage : public KelMsgBBMessage {
 public:
  ForgedMessage(const char* type, Bytes payload)
      : KelMsgBBMessage(KelString(type)), m_payload(std::move(payload)) {}
  int RequiredBufferSize() const override { return static_cast<int>(m_payload.size()); }
  void Stream(void* buffer, int) const override {
    if (!m_payload.empty())
      std::memcpy(buffer, m_payload.data(), m_payload.size());
  }
  void Unstream(const void*, int) override {}
  KelMsgBBMessage* Clone() const override { return new ForgedMessage(Type(), m_payload); }

 private:
  Bytes m_payload;
};

class KelMsgTypesBusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl("types");
    ASSERT_EQ(KelMsgBBAPI::RegisterCommunicator("receiver", m_receiver), KELBUS_OK)
        << KelBusLastError();
    ASSERT_EQ(KelMsgBBAPI::DeclareApplicationId(m_receiver, "receiver", false), KELBUS_OK);
    ASSERT_EQ(KelMsgBBAPI::EnableReceiveHandling(m_receiver, "receiver"), KELBUS_OK);
    for (KelMsgBBMessage* proto : std::initializer_list<KelMsgBBMessage*>{
             new KelMsgStringType(), new KelMsgAnalysisMessageType(),
             new KelMsgProcessControlType(), new KelMsgFileTransferType()}) {
      KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
          proto, new RecordingHandler(&m_deliveries, &m_ended));
    }
  }
  void TearDown() override {
    CloseCommunicator(m_receiver);
    KelMsgBBCallbackManager registry;
  }

  // Sends `messages` to "receiver" from a child process whose message
  // identifier is "sender-<pid>", and returns that identifier once the
  // child has handed them all to the broker.
  std::string SendFromChild(const std::vector<const KelMsgBBMessage*>& messages) {
    ChildProcess sender = ChildProcess::Fork([&messages] {
      int communicator = 0;
      if (KelMsgBBAPI::RegisterCommunicator("sender", communicator) != KELBUS_OK)
        return 1;
      KelMsgBBCallbackManager::SetMessageID(("sender-" + std::to_string(getpid())).c_str());
      for (const KelMsgBBMessage* msg : messages) {
        if (KelMsgBBAPI::SendRequest(communicator, "receiver", *msg) != KELBUS_OK)
          return 2;
      }
      return CloseCommunicator(communicator) == KELBUS_OK ? 0 : 3;
    });
    EXPECT_EQ(sender.ExitCode(20s), 0);
    return "sender-" + std::to_string(sender.Pid());
  }

  // Dispatches until `count` messages have reached the handlers.
  void ReceiveUntil(std::size_t count) {
    while (m_deliveries.size() < count) {
      m_ended = -1;
      ASSERT_EQ(KelMsgBBAPI::WaitingLoop(m_receiver, 20000, m_ended), KELBUS_OK);
    }
  }

  // Sends one message across and checks that it arrives unchanged.
  void ExpectArrivesIntact(const KelMsgBBMessage& msg) {
    const std::string sender = SendFromChild({&msg});
    ReceiveUntil(1);
    ASSERT_EQ(m_deliveries.size(), 1U);
    EXPECT_EQ(m_deliveries[0].type, msg.Type());
    EXPECT_EQ(m_deliveries[0].id, sender);
    EXPECT_EQ(m_deliveries[0].payload, StreamToBytes(msg));
  }

  TestBroker m_broker;
  int m_receiver = 0;
  int m_ended = -1;
  std::vector<Delivery> m_deliveries;
};

TEST_F(KelMsgTypesBusTest, RawString) {
  std::string bytes(100000, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = static_cast<char>(i * 31 + 7);
  KelMsgStringType msg;
  msg.SetData(bytes.data(), static_cast<int>(bytes.size()));
  ExpectArrivesIntact(msg);
}

TEST_F(KelMsgTypesBusTest, AnalysisDocument) {
  ExpectArrivesIntact(KelMsgAnalysisMessageType(KelString(
      "<?xml version=\"1.0\"?><Progress unit=\"%\">42 \xE2\x80\x94 \xC3\xA9tape 3</Progress>")));
}

TEST_F(KelMsgTypesBusTest, HardKill) {
  ExpectArrivesIntact(*KelMsgProcessControlTypeFactory::CreateHardKillMsg());
  ASSERT_EQ(m_deliveries.size(), 1U);
  EXPECT_EQ(m_deliveries[0].killValue, "HARD_KILL");
}

TEST_F(KelMsgTypesBusTest, FileTransferChunk) {
  std::string chunk(65536, '\0');
  for (std::size_t i = 0; i < chunk.size(); ++i)
    chunk[i] = static_cast<char>(i ^ (i >> 8));
  KelMsgFileTransferType msg;
  KelMsgFileTransferData& record = msg.Data();
  record.m_dataType = KelMsgFileTransferData::FILE_TRANSFER_CHUNK;
  record.m_sourceApplication = KelString("pre");
  record.m_sourceBaseDir = KelString("/scratch/\xC3\xA9tude");
  record.m_sourceFileName = KelString("mesh.inp");
  record.m_targetApplication = KelString("receiver");
  record.m_targetJobDir = KelString("job-7");
  record.m_chunkId = 3;
  record.m_chunkSize = static_cast<int>(chunk.size());
  record.m_chunkData = chunk.data();
  ExpectArrivesIntact(msg);
}

TEST_F(KelMsgTypesBusTest, RefusedPayloadsReachNoHandler) {
  KelMsgProcessControlType stop;
  stop.m_xmlMessage = KelString("<Stop type=\"symconst\">SOFT_KILL</Stop>");
  const Bytes transfer = StreamToBytes(KelMsgFileTransferType());
  const ForgedMessage cutTransfer("KelMsgFileTransferType",
                                  Bytes(transfer.begin(), transfer.end() - 1));
  const ForgedMessage longCount("KelMsgAnalysisMessageType",
                                PayloadBuilder().Int32(1000).Raw("<a/>").Get());
  const std::shared_ptr<KelMsgProcessControlType> soft =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();

  FatalErrorCapture capture;
  SendFromChild({&stop, &cutTransfer, &longCount, soft.get()});
  ReceiveUntil(1);
  ASSERT_EQ(m_deliveries.size(), 1U);
  EXPECT_EQ(m_deliveries[0].killValue, "SOFT_KILL");
  EXPECT_EQ(capture.Messages(), (std::vector<std::string>{
                                    "AssertionFailed:rootTagName == \"Kill\"",
                                    "AssertionFailed:byteCount <= bytesLeft",
                                    "AssertionFailed:byteCount <= bytesLeft",
                                }));
}

}  // namespace
