// The bus's functions on the in-process bus (KELBUS_URL=local:): delivery,
// names, waiting loops, callbacks and departures, within one process.
#include <gtest/gtest.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "BusTestSupport.h"

using bustest::Member;
using bustest::Received;
using bustest::Send;

namespace {

class KelBusLocal : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("KELBUS_URL", "local:", 1);
    Received::Reset();
  }
};

std::vector<std::string> TypesReceived() {
  std::vector<std::string> types;
  for (const auto& message : Received::Messages())
    types.push_back(message.type);
  return types;
}

TEST_F(KelBusLocal, MessagesReachTheHolderInOrderWithTypeAndBytes) {
  Member alpha("alpha");
  Member beta("beta");
  ASSERT_EQ(alpha.Result(), KELBUS_OK);
  ASSERT_EQ(beta.Result(), KELBUS_OK);
  ASSERT_EQ(Received::CollectMessages(alpha.Id()), KELBUS_OK);
  std::vector<bustest::Message> sent;
  for (int i = 0; i < 100; ++i) {
    std::string bytes(static_cast<std::size_t>(i * 7), '\0');
    for (std::size_t j = 0; j < bytes.size(); j += 3)
      bytes[j] = static_cast<char>(i + j);
    sent.push_back({"Type" + std::to_string(i % 5), bytes});
    ASSERT_EQ(Send(beta.Id(), "alpha", sent.back().type, bytes), KELBUS_OK);
  }
  ASSERT_TRUE(Received::AwaitMessages(alpha.Id(), sent.size(), 5000));
  ASSERT_EQ(Received::Messages().size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(Received::Messages()[i].type, sent[i].type) << "message " << i;
    EXPECT_EQ(Received::Messages()[i].bytes, sent[i].bytes) << "message " << i;
  }
}

TEST_F(KelBusLocal, AMessageToAnApplicationNobodyHoldsIsDropped) {
  Member alpha("alpha");
  ASSERT_EQ(Received::CollectMessages(alpha.Id()), KELBUS_OK);
  EXPECT_EQ(Send(alpha.Id(), "nobody", "T", "x"), KELBUS_OK);
  int watched = 0;
  EXPECT_EQ(WaitingLoop(alpha.Id(), 0, &watched), KELBUS_ERR_TIMEOUT);
  EXPECT_TRUE(Received::Messages().empty());
}

TEST_F(KelBusLocal, FlagZeroRefusesAHeldNameAndFlagOneTakesItOver) {
  Member watcher;
  Member first("shared");
  Member second;
  ASSERT_EQ(first.Result(), KELBUS_OK);
  ASSERT_EQ(Received::CollectReports(watcher.Id()), KELBUS_OK);
  ASSERT_EQ(Received::CollectMessages(second.Id()), KELBUS_OK);

  EXPECT_EQ(DeclareApplicationId(second.Id(), "shared", 0), KELBUS_ERR_NAME_HELD);
  EXPECT_NE(std::string(KelBusLastError()), "");
  ASSERT_EQ(DeclareApplicationId(second.Id(), "shared", 1), KELBUS_OK);

  int watched = 0;
  EXPECT_EQ(WaitingLoop(first.Id(), -1, &watched), KELBUS_ERR_NAME_LOST);
  EXPECT_EQ(Send(first.Id(), "shared", "T", "x"), KELBUS_ERR_NAME_LOST);
  ASSERT_TRUE(Received::AwaitReports(watcher.Id(), 1, 5000));
  const bustest::Report& report = Received::Reports()[0];
  EXPECT_EQ(report.pid, getpid());
  EXPECT_EQ(report.app, "shared");
  EXPECT_EQ(report.host, bustest::HostName());
  EXPECT_EQ(report.user, bustest::UserName());

  ASSERT_EQ(Send(watcher.Id(), "shared", "T", "for the new holder"), KELBUS_OK);
  ASSERT_TRUE(Received::AwaitMessages(second.Id(), 1, 5000));
  EXPECT_EQ(Received::Messages()[0].bytes, "for the new holder");
}

TEST_F(KelBusLocal, DeclarationsAreCheckedAndHappenOnce) {
  Member member;
  EXPECT_EQ(DeclareApplicationId(member.Id(), "", 0), KELBUS_ERR_INVALID);
  EXPECT_EQ(DeclareApplicationId(member.Id(), nullptr, 0), KELBUS_ERR_INVALID);
  EXPECT_EQ(DeclareApplicationId(member.Id(), "app", 2), KELBUS_ERR_INVALID);
  EXPECT_EQ(DeclareApplicationId(member.Id(), std::string(4097, 'a').c_str(), 0),
            KELBUS_ERR_INVALID);
  EXPECT_EQ(DeclareApplicationId(member.Id(), "app", 0), KELBUS_OK);
  EXPECT_EQ(DeclareApplicationId(member.Id(), "other", 0), KELBUS_ERR_ALREADY_DECLARED);
  EXPECT_EQ(DeclareApplicationId(member.Id() + 1000, "app", 0), KELBUS_ERR_BAD_ID);
}

TEST_F(KelBusLocal, WaitingLoopHonoursItsTimeLimit) {
  Member member("waiter");
  int watched = 0;
  EXPECT_EQ(WaitingLoop(member.Id(), 0, &watched), KELBUS_ERR_TIMEOUT);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitingLoop(member.Id(), 100, &watched), KELBUS_ERR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
  EXPECT_EQ(WaitingLoop(member.Id(), 0, nullptr), KELBUS_ERR_INVALID);
  EXPECT_EQ(BBSysLoopWait(nullptr, 0), KELBUS_ERR_INVALID);
}

TEST_F(KelBusLocal, WaitingWithoutAnyCommunicatorFailsAtOnce) {
  int watched = 0;
  EXPECT_EQ(BBSysLoopWait(&watched, -1), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(WaitingLoop(12345, -1, &watched), KELBUS_ERR_BAD_ID);
}

TEST_F(KelBusLocal, WaitingLoopServesItsCommunicatorAndSysLoopServesAllInArrivalOrder) {
  Member a("a");
  Member b("b");
  ASSERT_EQ(Received::CollectMessages(a.Id()), KELBUS_OK);
  ASSERT_EQ(Received::CollectMessages(b.Id()), KELBUS_OK);
  ASSERT_EQ(Send(a.Id(), "b", "first-for-b", ""), KELBUS_OK);
  ASSERT_EQ(Send(a.Id(), "a", "second-for-a", ""), KELBUS_OK);
  ASSERT_EQ(Send(b.Id(), "b", "third-for-b", ""), KELBUS_OK);

  ASSERT_EQ(WaitingLoop(a.Id(), 1000, &Received::Arrivals()), KELBUS_OK);
  EXPECT_EQ(TypesReceived(), std::vector<std::string>{"second-for-a"});
  int watched = 0;
  EXPECT_EQ(WaitingLoop(a.Id(), 0, &watched), KELBUS_ERR_TIMEOUT);

  for (int i = 0; i < 2; ++i)
    ASSERT_EQ(BBSysLoopWait(&Received::Arrivals(), 1000), KELBUS_OK);
  EXPECT_EQ(TypesReceived(),
            (std::vector<std::string>{"second-for-a", "first-for-b", "third-for-b"}));
}

int g_closing = 0;
void ClosingHandler(const char*, const void*, int) {
  CloseCommunicator(g_closing);
}

TEST_F(KelBusLocal, ACallbackMayCloseItsOwnCommunicator) {
  Member sender;
  int id = 0;
  ASSERT_EQ(RegisterCommunicator("closer", &id), KELBUS_OK);
  ASSERT_EQ(DeclareApplicationId(id, "closer", 0), KELBUS_OK);
  g_closing = id;
  ASSERT_EQ(AssociateHandler(id, nullptr, &ClosingHandler), KELBUS_OK);
  ASSERT_EQ(Send(sender.Id(), "closer", "T", "1"), KELBUS_OK);
  ASSERT_EQ(Send(sender.Id(), "closer", "T", "2"), KELBUS_OK);
  int watched = 0;
  EXPECT_EQ(WaitingLoop(id, 1000, &watched), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(CloseCommunicator(id), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(Send(id, "closer", "T", ""), KELBUS_ERR_BAD_ID);
}

TEST_F(KelBusLocal, MessagesDispatchedWithoutReceiveCallbackAreDropped) {
  Member member("quiet");
  ASSERT_EQ(Received::CollectMessages(member.Id()), KELBUS_OK);
  ASSERT_EQ(AssociateHandler(member.Id(), nullptr, nullptr), KELBUS_OK);
  ASSERT_EQ(Send(member.Id(), "quiet", "T", "lost"), KELBUS_OK);
  int watched = 0;
  EXPECT_EQ(WaitingLoop(member.Id(), 50, &watched), KELBUS_ERR_TIMEOUT);
  ASSERT_EQ(Received::CollectMessages(member.Id()), KELBUS_OK);
  ASSERT_EQ(Send(member.Id(), "quiet", "T", "kept"), KELBUS_OK);
  ASSERT_TRUE(Received::AwaitMessages(member.Id(), 1, 1000));
  ASSERT_EQ(Received::Messages().size(), 1u);
  EXPECT_EQ(Received::Messages()[0].bytes, "kept");
}

std::vector<std::string> g_sendCalls;
int g_size = 3;
const char* g_type = "T";
int RecordingSize() {
  g_sendCalls.push_back("size");
  return g_size;
}
const char* RecordingType() {
  g_sendCalls.push_back("type");
  return g_type;
}
void RecordingStream(void* buffer, int size) {
  g_sendCalls.push_back("stream " + std::to_string(size));
  std::memset(buffer, 'x', static_cast<std::size_t>(size));
}

TEST_F(KelBusLocal, SendRequestAsksSizeThenTypeThenStreamAndRefusesBadAnswers) {
  Member member("asked");
  ASSERT_EQ(Received::CollectMessages(member.Id()), KELBUS_OK);
  g_sendCalls.clear();
  ASSERT_EQ(SendRequest(member.Id(), "asked", &RecordingStream, &RecordingSize, &RecordingType),
            KELBUS_OK);
  EXPECT_EQ(g_sendCalls, (std::vector<std::string>{"size", "type", "stream 3"}));
  ASSERT_TRUE(Received::AwaitMessages(member.Id(), 1, 1000));
  EXPECT_EQ(Received::Messages()[0].bytes, "xxx");

  g_sendCalls.clear();
  g_size = -1;
  EXPECT_EQ(SendRequest(member.Id(), "asked", &RecordingStream, &RecordingSize, &RecordingType),
            KELBUS_ERR_INVALID);
  g_size = 3;
  g_type = nullptr;
  EXPECT_EQ(SendRequest(member.Id(), "asked", &RecordingStream, &RecordingSize, &RecordingType),
            KELBUS_ERR_INVALID);
  g_type = "T";
  EXPECT_EQ(g_sendCalls, (std::vector<std::string>{"size", "size", "type"}));
  EXPECT_EQ(SendRequest(member.Id(), nullptr, &RecordingStream, &RecordingSize, &RecordingType),
            KELBUS_ERR_INVALID);
  EXPECT_EQ(SendRequest(member.Id(), "asked", nullptr, &RecordingSize, &RecordingType),
            KELBUS_ERR_INVALID);
}

TEST_F(KelBusLocal, ClosingAHolderReportsItsDepartureToWatchersOnly) {
  Member watcher;
  Member bystander;
  ASSERT_EQ(Received::CollectReports(watcher.Id()), KELBUS_OK);
  {
    Member anonymous;
    Member holder("leaving");
  }
  ASSERT_TRUE(Received::AwaitReports(watcher.Id(), 1, 1000));
  int watched = 0;
  EXPECT_EQ(WaitingLoop(watcher.Id(), 50, &watched), KELBUS_ERR_TIMEOUT);
  ASSERT_EQ(Received::Reports().size(), 1u);
  EXPECT_EQ(Received::Reports()[0].app, "leaving");
  EXPECT_EQ(Received::Reports()[0].pid, getpid());

  ASSERT_EQ(AssociateDisconnectHandler(watcher.Id(), nullptr, nullptr), KELBUS_OK);
  { Member holder("unwatched"); }
  EXPECT_EQ(WaitingLoop(watcher.Id(), 50, &watched), KELBUS_ERR_TIMEOUT);
  EXPECT_EQ(Received::Reports().size(), 1u);
}

}  // namespace
