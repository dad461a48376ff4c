// What the bus promises its callers (KelBus.h), checked on every transport:
// the in-process bus and MQTT through a broker that the test starts.  The
// library's facade KelMsgBBAPI, a pass-through, is checked here as well.
#include <gtest/gtest.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BusTestSupport.h"
#include "ChildProcess.h"
#include "TestBroker.h"

using namespace bustest;
using namespace std::chrono_literals;

namespace {

class KelBusContract : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    Received() = {};
    if (GetParam() == "local") {
      setenv("KELBUS_URL", "local:", 1);
      return;
    }
    m_broker.emplace();
    ASSERT_TRUE(m_broker->Running()) << m_broker->Error();
    m_broker->ExportUrl("contract");
  }

  std::optional<TestBroker> m_broker;
};

INSTANTIATE_TEST_SUITE_P(Transports, KelBusContract, ::testing::Values("local", "mqtt"),
                         [](const auto& info) { return info.param; });

TEST_P(KelBusContract, MessagesArriveInOrderWithTheirTypesAndBytes) {
  Member alpha("alpha");
  ASSERT_EQ(alpha.Result(), KELBUS_OK) << KelBusLastError();
  ASSERT_EQ(CollectReports(alpha.Id()), KELBUS_OK);
  {
    // Dispatched while alpha has no receive callback, before the departure
    // of its sender: dropped.  So is a message to a name nobody holds yet.
    Member early("early");
    ASSERT_EQ(Send(early.Id(), "alpha", "T", "dropped"), KELBUS_OK);
    ASSERT_EQ(Send(early.Id(), "later", "T", "dropped"), KELBUS_OK);
  }
  ASSERT_TRUE(Await(0, 1));
  ASSERT_EQ(CollectMessages(alpha.Id()), KELBUS_OK);

  Member beta;
  const std::string types[] = {"", "a b/c+#", "\xC3\xA9", std::string(1000, 't')};
  std::vector<Message> sent;
  for (std::size_t i = 0; i < 60; ++i) {
    std::string bytes(i * 7, '\0');
    for (std::size_t j = 0; j < bytes.size(); j += 3)
      bytes[j] = static_cast<char>(i + j);
    sent.push_back({types[i % std::size(types)], bytes});
  }
  // Above the send window, which lets a larger message go alone.
  sent.push_back({"large", std::string(KELBUS_SEND_WINDOW_BYTES + 1, 'L')});
  for (const auto& message : sent)
    ASSERT_EQ(Send(beta.Id(), "alpha", message.type, message.bytes), KELBUS_OK);
  Member later("later");
  ASSERT_EQ(CollectMessages(later.Id()), KELBUS_OK);
  ASSERT_EQ(Send(beta.Id(), "later", "T", "kept"), KELBUS_OK);

  ASSERT_TRUE(Await(sent.size() + 1));
  auto received = Received().messages;
  EXPECT_EQ(std::erase_if(received, [](const Message& m) { return m.bytes == "kept"; }), 1u);
  ASSERT_EQ(received.size(), sent.size());
  for (std::size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(received[i].type, sent[i].type) << "message " << i;
    EXPECT_TRUE(received[i].bytes == sent[i].bytes) << "message " << i;
  }
}

std::string g_calls;
int RecordingSize() {
  g_calls += "size;";
  return 3;
}
const char* RecordingType() {
  g_calls += "type;";
  return "T";
}
void RecordingStream(void* buffer, int size) {
  g_calls += "stream;";
  std::memset(buffer, 'x', static_cast<std::size_t>(size));
}
int NegativeSize() {
  return -1;
}
const char* NoType() {
  return nullptr;
}

// Call after call: its result, and a text in KelBusLastError exactly when
// it failed, so that every success clears what the failure before it left.
TEST_P(KelBusContract, EveryCallChecksItsArgumentsAndReportsItsResult) {
  int watched = 0;
  EXPECT_EQ(BBSysLoopWait(&watched, -1), KELBUS_ERR_BAD_ID);  // no communicator open
  Member me("me");
  Member other;
  ASSERT_EQ(CollectMessages(me.Id()), KELBUS_OK);
  const int m = me.Id(), o = other.Id(), bad = m + 1000;
  const std::string tooLong(4097, 'a');
  int registered = 0;
  int& arrivals = Received().arrivals;
  const auto send = [m](const char* target, KelBusStreamCallback stream = RecordingStream,
                        KelBusSizeCallback size = RecordingSize,
                        KelBusTypeCallback type = RecordingType) {
    return SendRequest(m, target, stream, size, type);
  };
  g_calls.clear();
  const std::pair<int, std::function<int()>> calls[] = {
      {KELBUS_ERR_INVALID, [&] { return RegisterCommunicator("x", nullptr); }},
      {KELBUS_OK, [&] { return RegisterCommunicator("x", &registered); }},
      {KELBUS_ERR_BAD_ID, [&] { return DeclareApplicationId(bad, "x", 0); }},
      {KELBUS_ERR_INVALID, [&] { return DeclareApplicationId(o, "", 0); }},
      {KELBUS_ERR_INVALID, [&] { return DeclareApplicationId(o, nullptr, 0); }},
      {KELBUS_ERR_INVALID, [&] { return DeclareApplicationId(o, "x", 2); }},
      {KELBUS_ERR_INVALID, [&] { return DeclareApplicationId(o, tooLong.c_str(), 0); }},
      {KELBUS_OK, [&] { return DeclareApplicationId(o, "other", 0); }},
      {KELBUS_ERR_ALREADY_DECLARED, [&] { return DeclareApplicationId(o, "me", 1); }},
      {KELBUS_ERR_BAD_ID, [&] { return Send(bad, "me", "T", ""); }},
      {KELBUS_ERR_INVALID, [&] { return send(nullptr); }},
      {KELBUS_ERR_INVALID, [&] { return send("me", nullptr); }},
      {KELBUS_ERR_INVALID, [&] { return send("me", RecordingStream, NegativeSize); }},
      {KELBUS_ERR_INVALID, [&] { return send("me", RecordingStream, RecordingSize, NoType); }},
      {KELBUS_ERR_INVALID, [&] { return Send(m, "me", "\xFF\xFE", ""); }},
      {KELBUS_ERR_INVALID, [&] { return Send(m, "me", "tab\t", ""); }},
      {KELBUS_OK, [&] { return send("me"); }},
      {KELBUS_ERR_BAD_ID, [&] { return WaitingLoop(bad, 0, &watched); }},
      {KELBUS_ERR_BAD_ID, [&] { return WaitingLoop(0, 0, &watched); }},
      {KELBUS_ERR_INVALID, [&] { return WaitingLoop(m, 0, nullptr); }},
      {KELBUS_OK, [&] { return WaitingLoop(m, 5000, &arrivals); }},
      {KELBUS_ERR_TIMEOUT, [&] { return WaitingLoop(m, 0, &watched); }},
      {KELBUS_OK, [&] { return Send(m, "me", "T", ""); }},
      {KELBUS_ERR_INVALID, [&] { return BBSysLoopWait(nullptr, 0); }},
      {KELBUS_OK, [&] { return BBSysLoopWait(&arrivals, 5000); }},
      {KELBUS_ERR_TIMEOUT, [&] { return BBSysLoopWait(&watched, 0); }},
      {KELBUS_ERR_BAD_ID, [&] { return AssociateHandler(bad, nullptr, nullptr); }},
      {KELBUS_OK, [&] { return AssociateHandler(m, nullptr, nullptr); }},
      {KELBUS_ERR_BAD_ID, [&] { return AssociateDisconnectHandler(bad, nullptr, nullptr); }},
      {KELBUS_OK, [&] { return AssociateDisconnectHandler(m, nullptr, nullptr); }},
      {KELBUS_ERR_BAD_ID, [&] { return CloseCommunicator(bad); }},
      {KELBUS_OK, [&] { return CloseCommunicator(registered); }},
      {KELBUS_ERR_BAD_ID, [&] { return CloseCommunicator(registered); }},
  };
  for (std::size_t i = 0; i < std::size(calls); ++i) {
    EXPECT_EQ(calls[i].second(), calls[i].first) << "call " << i;
    EXPECT_EQ(KelBusLastError()[0] == '\0', calls[i].first == KELBUS_OK)
        << "call " << i << ": " << KelBusLastError();
  }
  // Size, type, stream, in that order, and nothing after a bad answer.
  EXPECT_EQ(g_calls, "size;size;type;stream;");
  ASSERT_FALSE(Received().messages.empty());
  EXPECT_EQ(Received().messages[0].bytes, "xxx");
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitingLoop(m, 100, &watched), KELBUS_ERR_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
}

TEST_P(KelBusContract, AHeldNameIsRefusedOrTakenOverAndItsLoserIsWokenAndReported) {
  Member watcher;
  Member first("shared");
  Member second;
  ASSERT_EQ(first.Result(), KELBUS_OK);
  for (const int id : {watcher.Id(), second.Id()})  // the taker watches too
    ASSERT_EQ(CollectReports(id), KELBUS_OK);
  ASSERT_EQ(CollectMessages(second.Id()), KELBUS_OK);
  EXPECT_EQ(DeclareApplicationId(second.Id(), "shared", 0), KELBUS_ERR_NAME_HELD);
  EXPECT_STRNE(KelBusLastError(), "");

  // The holder is waiting when it loses the name; the loss ends its wait.
  int waited = KELBUS_OK;
  std::thread holder([&] {
    int watched = 0;
    waited = WaitingLoop(first.Id(), 5000, &watched);
  });
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(DeclareApplicationId(second.Id(), "shared", 1), KELBUS_OK);
  holder.join();
  EXPECT_EQ(waited, KELBUS_ERR_NAME_LOST);
  EXPECT_EQ(Send(first.Id(), "shared", "T", "x"), KELBUS_ERR_NAME_LOST);

  Member third;
  EXPECT_EQ(DeclareApplicationId(third.Id(), "shared", 0), KELBUS_ERR_NAME_HELD);
  ASSERT_EQ(Send(third.Id(), "shared", "T", "for the new holder"), KELBUS_OK);
  ASSERT_TRUE(Await(1, 2));
  EXPECT_EQ(Received().messages[0].bytes, "for the new holder");
  EXPECT_EQ(Received().reports.size(), 2u);
  for (const Report& report : Received().reports)
    ExpectReportOf(report, getpid(), "shared");
}

TEST_P(KelBusContract, AnyNameCarriesMessagesAndIsFreeAgainOnceItsHolderLeaves) {
  Member sender;
  const std::string names[] = {
      "a/b", "+", "#", "a b%20", "\xC3\xA9t\xC3\xA9", "$SYS", std::string(4096, '/')};
  for (const std::string& name : names) {
    const std::string shown = name.substr(0, 20);
    {
      Member holder(name.c_str());
      ASSERT_EQ(holder.Result(), KELBUS_OK) << shown << ": " << KelBusLastError();
      ASSERT_EQ(CollectMessages(holder.Id()), KELBUS_OK);
      ASSERT_EQ(Send(sender.Id(), name, "T", name), KELBUS_OK);
      ASSERT_TRUE(Await(Received().messages.size() + 1)) << shown;
      EXPECT_EQ(Received().messages.back().bytes, name);
    }
    Member successor(name.c_str());
    EXPECT_EQ(successor.Result(), KELBUS_OK) << shown << ": " << KelBusLastError();
  }
  // Names that escape alike in part stay apart.
  Member slash("x/y");
  Member escaped("x%2Fy");
  EXPECT_EQ(slash.Result(), KELBUS_OK);
  EXPECT_EQ(escaped.Result(), KELBUS_OK);
}

// A message to an application whose holder left fails; once somebody holds
// it again (and has told the sender so by a message), it goes.
TEST_P(KelBusContract, SendingToAnApplicationThatLeftFailsUntilItIsHeldAgain) {
  Member sender("sender");
  ASSERT_EQ(CollectMessages(sender.Id()), KELBUS_OK);
  { Member gone("gone"); }
  EXPECT_EQ(Send(sender.Id(), "gone", "T", "lost"), KELBUS_ERR_GONE);
  EXPECT_STREQ(KelBusLastError(), "application 'gone' has left the bus");
  Member back("gone");
  ASSERT_EQ(CollectMessages(back.Id()), KELBUS_OK);
  ASSERT_EQ(Send(back.Id(), "sender", "T", "back"), KELBUS_OK);
  ASSERT_TRUE(Await(1));
  ASSERT_EQ(Send(sender.Id(), "gone", "T", "welcome"), KELBUS_OK);
  ASSERT_TRUE(Await(2));
  EXPECT_EQ(Received().messages[1].bytes, "welcome");
}

TEST_P(KelBusContract, DeparturesOfHoldersReachTheWatchersOfTheMoment) {
  Member watcher("watcher");
  ASSERT_EQ(CollectMessages(watcher.Id()), KELBUS_OK);
  ASSERT_EQ(CollectReports(watcher.Id()), KELBUS_OK);
  {
    Member anonymous;
    Member holder("leaving");
  }
  ASSERT_TRUE(Await(0, 1));
  ExpectReportOf(Received().reports[0], getpid(), "leaving");

  ASSERT_EQ(AssociateDisconnectHandler(watcher.Id(), nullptr, nullptr), KELBUS_OK);
  // A message to itself has passed the broker after the removal did.
  ASSERT_EQ(Send(watcher.Id(), "watcher", "T", ""), KELBUS_OK);
  ASSERT_TRUE(Await(1));
  { Member unwatched("unwatched"); }
  ASSERT_EQ(CollectReports(watcher.Id()), KELBUS_OK);
  { Member watched("watched"); }
  ASSERT_TRUE(Await(1, 2));
  EXPECT_EQ(Received().reports[1].app, "watched");
}

// Two communicators of one process: the client answers a request after a
// ping and pong, waiting for the pong inside the request's callback, and
// then closes itself inside a callback.  The client's loop leaves the
// server's message "early" to the nested loop, which serves every
// communicator in the order of arrival.
int g_server = 0, g_client = 0, g_pongs = 0;
std::string g_steps;
void Converse(const char* type, const void*, int) {
  const std::string step = type;
  g_steps += step + ";";
  if (step == "request") {
    Send(g_client, "server", "ping", "");
    g_steps += "nested wait " + std::to_string(BBSysLoopWait(&g_pongs, 5000)) + ";";
    Send(g_client, "client", "close", "");
    Send(g_client, "client", "unread", "");
  } else if (step == "ping") {
    Send(g_server, "client", "pong", "");
  } else if (step == "pong") {
    ++g_pongs;
  } else if (step == "close") {
    CloseCommunicator(g_client);
  }
}

TEST_P(KelBusContract, CallbacksMaySendWaitAgainAndCloseTheirCommunicator) {
  Member server("server");
  g_server = server.Id();
  ASSERT_EQ(RegisterCommunicator("client", &g_client), KELBUS_OK);
  ASSERT_EQ(DeclareApplicationId(g_client, "client", 0), KELBUS_OK);
  ASSERT_EQ(AssociateHandler(g_server, nullptr, &Converse), KELBUS_OK);
  ASSERT_EQ(AssociateHandler(g_client, nullptr, &Converse), KELBUS_OK);
  g_steps.clear();
  ASSERT_EQ(Send(g_server, "server", "early", ""), KELBUS_OK);
  ASSERT_EQ(Send(g_server, "client", "request", ""), KELBUS_OK);
  int watched = 0;
  EXPECT_EQ(WaitingLoop(g_client, 5000, &watched), KELBUS_ERR_BAD_ID);
  EXPECT_EQ(g_steps, "request;early;ping;pong;nested wait 0;close;");
  EXPECT_EQ(CloseCommunicator(g_client), KELBUS_ERR_BAD_ID);
}

// The in-process bus is the process's own: a forked child starts without the
// parent's communicators.
TEST(KelBusLocal, AForkedChildHasABusOfItsOwn) {
  setenv("KELBUS_URL", "local:", 1);
  Member parent("name");
  ASSERT_EQ(parent.Result(), KELBUS_OK);
  ChildProcess child = ChildProcess::Fork([] { return -Member("name").Result(); });
  EXPECT_EQ(child.ExitCode(10s), KELBUS_OK);
}

// What the facade adds: the flag as 0 or 1, and the bus's results given back
// unchanged from calls whose arguments keep their order.  The registry's
// callbacks that it hands over carry every message of the library's tests.
TEST_P(KelBusContract, TheFacadePassesArgumentsAndResultsThrough) {
  int me = 0, other = 0, watched = 0;
  const KelMsgStringType message;
  using API = KelMsgBBAPI;
  const std::pair<int, std::function<int()>> calls[] = {
      {KELBUS_OK, [&] { return API::RegisterCommunicator("me", me); }},
      {KELBUS_OK, [&] { return API::RegisterCommunicator("other", other); }},
      {KELBUS_OK, [&] { return API::DeclareApplicationId(other, "held", false); }},
      {KELBUS_ERR_NAME_HELD, [&] { return API::DeclareApplicationId(me, "held", false); }},
      {KELBUS_OK, [&] { return API::DeclareApplicationId(me, "held", true); }},
      {KELBUS_ERR_TIMEOUT, [&] { return API::WaitingLoop(me, 0, watched); }},
      {KELBUS_ERR_TIMEOUT, [&] { return API::BBSysLoopWait(watched, 0); }},
      {0, [&] { return API::AssociateHandler(nullptr); }},
      {KELBUS_OK, [&] { return CloseCommunicator(other); }},
      {KELBUS_ERR_BAD_ID, [&] { return API::SendRequest(other, "held", message); }},
      {KELBUS_ERR_BAD_ID, [&] { return API::EnableReceiveHandling(other, "x"); }},
      {KELBUS_ERR_BAD_ID, [&] { return API::EnableDisconnectHandling(other, "x"); }},
      {KELBUS_OK, [&] { return CloseCommunicator(me); }},
  };
  for (std::size_t i = 0; i < std::size(calls); ++i)
    EXPECT_EQ(calls[i].second(), calls[i].first) << "call " << i;
  setenv("KELBUS_URL", "malformed", 1);
  const DiagnosticLines quiet;
  EXPECT_EQ(API::RegisterCommunicator("me", me), KELBUS_ERR_URL);
}

}  // namespace
