// KelMsgBBAPI over the in-process bus: every call reaches the bus with its
// arguments, the registry's callbacks and the bus's result.
#include <gtest/gtest.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "BlobMessage.h"
#include "BusTestSupport.h"

namespace {

struct Delivered {
  std::string type;
  std::string bytes;
  std::string id;
};

class KelMsgBBAPILocal : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELBUS_URL", "local:", 1);
    KelMsgBBCallbackManager::SetMessageID("");
  }
  // Deletes what the test adopted.
  void TearDown() override { KelMsgBBCallbackManager registry; }

  int Join(const char* app) {
    int id = 0;
    EXPECT_EQ(KelMsgBBAPI::RegisterCommunicator("test", id), KELBUS_OK);
    if (app != nullptr) {
      EXPECT_EQ(KelMsgBBAPI::DeclareApplicationId(id, app, false), KELBUS_OK);
    }
    m_joined.push_back(id);
    return id;
  }

  void RecordBlobs(const std::string& type) {
    HandleBlobs(type, [this](const BlobMessage& message, const std::string& id) {
      m_delivered.push_back({message.Type(), message.Bytes(), id});
      m_arrived = 0;
    });
  }

  // Dispatches until one more message has been handled.
  int AwaitOne(int communicator) {
    m_arrived = -1;
    return KelMsgBBAPI::WaitingLoop(communicator, 5000, m_arrived);
  }

  ~KelMsgBBAPILocal() override {
    for (const int id : m_joined)
      CloseCommunicator(id);
  }

  std::vector<int> m_joined;
  std::vector<Delivered> m_delivered;
  int m_arrived = -1;
};

TEST_F(KelMsgBBAPILocal, DeclareApplicationIdPassesItsFlagAsZeroOrOne) {
  const int first = Join("shared");
  const int second = Join(nullptr);
  EXPECT_EQ(KelMsgBBAPI::DeclareApplicationId(second, "shared", false), KELBUS_ERR_NAME_HELD);
  EXPECT_EQ(KelMsgBBAPI::DeclareApplicationId(second, "shared", true), KELBUS_OK);
  EXPECT_EQ(KelMsgBBAPI::SendRequest(first, "shared", BlobMessage("T")), KELBUS_ERR_NAME_LOST);
}

TEST_F(KelMsgBBAPILocal, SendRequestLendsEachMessageToTheRegistryBeforeTheBusStreamsIt) {
  const int me = Join("me");
  KelMsgBBCallbackManager::SetMessageID("sender-id");
  RecordBlobs("First");
  RecordBlobs("Second");
  ASSERT_EQ(KelMsgBBAPI::EnableReceiveHandling(me, "me"), KELBUS_OK);
  {
    const BlobMessage first("First", std::string("one\0", 4));
    ASSERT_EQ(KelMsgBBAPI::SendRequest(me, "me", first), KELBUS_OK);
  }
  const BlobMessage second("Second", "two and more");
  ASSERT_EQ(KelMsgBBAPI::SendRequest(me, "me", second), KELBUS_OK);
  EXPECT_STREQ(KelMsgBBCallbackManager::TypeOfPendingMessage(), "Second");

  ASSERT_EQ(AwaitOne(me), KELBUS_OK);
  ASSERT_EQ(AwaitOne(me), KELBUS_OK);
  ASSERT_EQ(m_delivered.size(), 2u);
  EXPECT_EQ(m_delivered[0].type, "First");
  EXPECT_EQ(m_delivered[0].bytes, std::string("one\0", 4));
  EXPECT_EQ(m_delivered[0].id, "sender-id");
  EXPECT_EQ(m_delivered[1].type, "Second");
  EXPECT_EQ(m_delivered[1].bytes, "two and more");
}

TEST_F(KelMsgBBAPILocal, TheBusResultsComeBackUnchanged) {
  const int me = Join("me");
  int watched = -1;
  EXPECT_EQ(KelMsgBBAPI::WaitingLoop(me, 0, watched), KELBUS_ERR_TIMEOUT);
  EXPECT_EQ(KelMsgBBAPI::BBSysLoopWait(watched, 0), KELBUS_ERR_TIMEOUT);
  EXPECT_EQ(KelMsgBBAPI::SendRequest(me + 100, "me", BlobMessage("T")), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(KelMsgBBAPI::EnableReceiveHandling(me + 100, "me"), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(KelMsgBBAPI::EnableDisconnectHandling(me + 100, "me"), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(KelMsgBBAPI::DeclareApplicationId(me, "again", false), KELBUS_ERR_ALREADY_DECLARED);
  setenv("KELBUS_URL", "nonsense", 1);
  testing::internal::CaptureStderr();
  int id = 0;
  EXPECT_EQ(KelMsgBBAPI::RegisterCommunicator("test", id), KELBUS_ERR_URL);
  testing::internal::GetCapturedStderr();
}

TEST_F(KelMsgBBAPILocal, AssociateHandlerChangesNothing) {
  const int me = Join("me");
  RecordBlobs("T");
  ASSERT_EQ(KelMsgBBAPI::EnableReceiveHandling(me, "me"), KELBUS_OK);
  KelMsgBBCallbackManager registry;
  EXPECT_EQ(KelMsgBBAPI::AssociateHandler(nullptr), 0);
  EXPECT_EQ(KelMsgBBAPI::AssociateHandler(&registry), 0);
  ASSERT_EQ(KelMsgBBAPI::SendRequest(me, "me", BlobMessage("T", "still delivered")), KELBUS_OK);
  ASSERT_EQ(AwaitOne(me), KELBUS_OK);
  ASSERT_EQ(m_delivered.size(), 1u);
  EXPECT_EQ(m_delivered[0].bytes, "still delivered");
}

class RecordingDisconnectHandler : public KelMsgBBDisconnectHandler {
 public:
  void DetectDisconnection(int pid, const char* app, const char* host,
                           const char* user) const override {
    reports.push_back({pid, app, host, user});
    ending = 0;
  }
  mutable std::vector<bustest::Report> reports;
  mutable int ending = -1;
};

TEST_F(KelMsgBBAPILocal, DeparturesReachTheInstalledDisconnectHandler) {
  const int watcher = Join("watcher");
  RecordingDisconnectHandler handler;
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&handler);
  ASSERT_EQ(KelMsgBBAPI::EnableDisconnectHandling(watcher, "watcher"), KELBUS_OK);
  int leaving = 0;
  ASSERT_EQ(KelMsgBBAPI::RegisterCommunicator("test", leaving), KELBUS_OK);
  ASSERT_EQ(KelMsgBBAPI::DeclareApplicationId(leaving, "leaving", false), KELBUS_OK);
  ASSERT_EQ(CloseCommunicator(leaving), KELBUS_OK);
  ASSERT_EQ(KelMsgBBAPI::WaitingLoop(watcher, 5000, handler.ending), KELBUS_OK);
  ASSERT_EQ(handler.reports.size(), 1u);
  EXPECT_EQ(handler.reports[0].pid, getpid());
  EXPECT_EQ(handler.reports[0].app, "leaving");
  EXPECT_EQ(handler.reports[0].host, bustest::HostName());
  EXPECT_EQ(handler.reports[0].user, bustest::UserName());
}

}  // namespace
