// KelMsgBBApplication on the in-process bus: what joining sets up, what a
// refused join leaves, and when the application leaves.
#include <KelMsgFeaMessaging/KelMsgBBApplication.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

namespace {

int SendText(const KelMsgBBApplication& from, const char* to, const char* text) {
  KelMsgStringType message;
  message.SetData(text, static_cast<int>(std::strlen(text)));
  return from.Send(to, message);
}

class LastArrival : public KelMsgBBMessageHandler {
 public:
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& string = static_cast<const KelMsgStringType&>(msg);
    text = std::string(id) + ": " + std::string(string.Data(), string.Size());
    arrived = 0;
  }
  std::string text;
  int arrived = -1;
};

class KelMsgBBApplicationTest : public ::testing::Test {
 protected:
  KelMsgBBApplicationTest() {
    setenv("KELBUS_URL", "local:", 1);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, m_arrival);
  }

  KelMsgBBCallbackManager m_registry;        // deletes m_arrival
  LastArrival* m_arrival = new LastArrival;  // adopted
};

TEST_F(KelMsgBBApplicationTest, ReceivesUnderItsNameAndSendsUnderItAsIdentifier) {
  const KelMsgBBApplication solver("solver");
  ASSERT_EQ(solver.Result(), KELBUS_OK);
  EXPECT_TRUE(solver.Joined());
  EXPECT_STREQ(solver.Name(), "solver");
  ASSERT_EQ(SendText(solver, "solver", "to myself"), KELBUS_OK);
  EXPECT_EQ(solver.Wait(m_arrival->arrived, 5000), KELBUS_OK);
  EXPECT_EQ(m_arrival->text, "solver: to myself");
}

TEST_F(KelMsgBBApplicationTest, AHeldNameIsRefusedUnlessTakenOver) {
  const KelMsgBBApplication holder("solver");
  const KelMsgBBApplication refused("solver");
  EXPECT_EQ(refused.Result(), KELBUS_ERR_NAME_HELD);
  EXPECT_FALSE(refused.Joined());
  EXPECT_NE(refused.Communicator(), 0) << "registered, though not declared";
  EXPECT_TRUE(KelMsgBBApplication("solver", 1).Joined());

  setenv("KELBUS_URL", "nowhere:", 1);
  const KelMsgBBApplication lost("solver");
  EXPECT_EQ(lost.Result(), KELBUS_ERR_URL);
  EXPECT_EQ(lost.Communicator(), 0);
}

TEST_F(KelMsgBBApplicationTest, LeavesWhenDestroyedOrReplacedButNotWhenMovedFrom) {
  KelMsgBBApplication first("solver");
  KelMsgBBApplication moved(std::move(first));
  EXPECT_EQ(first.Communicator(), 0);  // NOLINT(bugprone-use-after-move): what is left
  { const KelMsgBBApplication empty(std::move(first)); }
  EXPECT_EQ(SendText(moved, "solver", "still here"), KELBUS_OK);
  EXPECT_FALSE(KelMsgBBApplication("solver").Joined());

  moved = KelMsgBBApplication("mesher");
  EXPECT_STREQ(moved.Name(), "mesher");
  EXPECT_TRUE(moved.Joined());
  EXPECT_TRUE(KelMsgBBApplication("solver").Joined()) << "the name was given back";
}

}  // namespace
