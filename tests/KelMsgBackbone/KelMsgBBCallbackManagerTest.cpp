#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "ProbeMessage.h"

namespace {

using Strings = std::vector<std::string>;

constexpr char kRegistryPath[] = "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgBBCallbackManager";

// Frames `msg` the way the bus does during a send: size, then envelope.
std::vector<char> Frame(const KelMsgBBMessage& msg) {
  KelMsgBBCallbackManager::AppendMessageToSend(&msg);
  std::vector<char> buffer(
      static_cast<std::size_t>(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage()));
  KelMsgBBCallbackManager::StreamPendingMessage(buffer.data(), static_cast<int>(buffer.size()));
  return buffer;
}

std::vector<char> Envelope(std::int32_t n, const std::string& rest) {
  char count[4];
  std::memcpy(count, &n, sizeof count);
  const std::string bytes = std::string(count, sizeof count) + rest;
  return {bytes.begin(), bytes.end()};
}

class RegistryTest : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override {
    { KelMsgBBCallbackManager teardown; }
    KelMsgBBCallbackManager::SetMessageID("");
    KelMsgBBCallbackManager::AppendMessageToSend(nullptr);
    KelMsgBBCallbackManager::AssociateDisconnectHandler(nullptr);
  }

  // Registers a probe prototype and handler under "ProbeMessage".
  ProbeMessage* AdoptProbe() {
    auto* proto = new ProbeMessage(&m_log);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(proto, new ProbeHandler(&m_log));
    return proto;
  }

  void Dispatch(const std::vector<char>& buffer, const char* type = "ProbeMessage") {
    KelMsgBBCallbackManager::HandleMessage(type, buffer.data(), static_cast<int>(buffer.size()));
  }

  ProbeLog m_log;
};

// The envelope carries the identifier's bytes before the payload; dispatch
// clones the prototype, lets the clone take the payload, hands it to the
// handler with the identifier, and deletes it.
TEST_F(RegistryTest, FramedMessagesAreDispatchedToTheHandler) {
  const ProbeMessage* proto = AdoptProbe();
  ProbeLog senderLog;
  const ProbeMessage outgoing(&senderLog, "ProbeMessage", std::string("x\0z", 3));
  const std::pair<const char*, std::string> envelopes[] = {
      {"", std::string("\0\0\0\0x\0z", 7)},
      {"job-1", std::string("\5\0\0\0job-1x\0z", 12)},
      {"\xC3\xA9", std::string("\2\0\0\0\xC3\xA9x\0z", 9)},
  };
  for (const auto& [id, expected] : envelopes) {
    KelMsgBBCallbackManager::SetMessageID(id);
    const std::vector<char> buffer = Frame(outgoing);
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), expected) << "id " << id;
    EXPECT_STREQ(KelMsgBBCallbackManager::TypeOfPendingMessage(), "ProbeMessage");
    Dispatch(buffer);
  }
  EXPECT_EQ(m_log.clones, 3);
  ASSERT_EQ(m_log.handled, 3);
  EXPECT_EQ(m_log.ids, (Strings{"", "job-1", "\xC3\xA9"}));
  EXPECT_EQ(m_log.payloads, Strings(3, std::string("x\0z", 3)));
  EXPECT_NE(m_log.received[0], proto) << "the handler must get the clone";
  EXPECT_EQ(m_log.destroyed, 3) << "each clone is deleted once the handler returns";
  EXPECT_TRUE(proto->Payload().empty()) << "the prototype is never filled";
}

TEST_F(RegistryTest, WhatAnotherProcessGotWrongIsReportedAndReachesNoHandler) {
  AdoptProbe();
  const char* const kCount = "AssertionFailed:n >= 0 && n <= size - 4";
  std::vector<std::pair<std::vector<char>, const char*>> cases;
  for (std::size_t size = 0; size < 4; ++size)
    cases.emplace_back(std::vector<char>(size, '\0'), "AssertionFailed:size >= 4");
  for (const std::int32_t n : {-1, 4, INT32_MAX, INT32_MIN})
    cases.emplace_back(Envelope(n, "abc"), kCount);
  for (const auto& [buffer, report] : cases) {
    FatalErrorCapture capture;
    Dispatch(buffer);
    EXPECT_EQ(capture.Messages(), Strings{report}) << buffer.size();
    EXPECT_EQ(capture.Reports().at(0).path, kRegistryPath);
  }
  FatalErrorCapture capture;
  EXPECT_FALSE(KelMsgBBCallbackManager::IsMessageTypeHandled("Unknown"))
      << "asking reports nothing";
  Dispatch(Envelope(0, "x"), "Unknown");
  EXPECT_EQ(m_log.clones, 0);
  Dispatch(Envelope(0, "!bad"));  // refused by the message itself
  EXPECT_EQ(capture.Messages(),
            (Strings{"AssertionFailed:m_protos.IsMember(type)",
                     "AssertionFailed:m_payload.empty() || m_payload[0] != '!'"}));
  EXPECT_EQ(m_log.handled, 0);
  EXPECT_EQ(m_log.destroyed, 1) << "the refused clone is released";

  Dispatch(Envelope(3, "abcdef"));
  ASSERT_EQ(m_log.handled, 1) << "a refusal does not stick to the next message";
  EXPECT_EQ(m_log.ids[0], "abc");
  EXPECT_EQ(m_log.payloads.back(), "def");
}

TEST_F(RegistryTest, DestructionDeletesEachPrototypeAndHandlerOnce) {
  ProbeLog log;
  ProbeHandler* handlerOfA = nullptr;
  for (const char* type : {"B", "A", "C"}) {
    auto* handler = new ProbeHandler(&log);
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new ProbeMessage(&log, type), handler);
    if (std::string(type) == "A")
      handlerOfA = handler;
  }
  {
    KelMsgBBCallbackManager registry;
    EXPECT_TRUE(KelMsgBBCallbackManager::IsMessageTypeHandled("A"));
    EXPECT_EQ(registry.GetHandler("A"), handlerOfA);
  }
  EXPECT_EQ(log.destroyed, 3);
  EXPECT_EQ(log.handlersDestroyed, 3);
  for (const char* type : {"A", "B", "C"})
    EXPECT_FALSE(KelMsgBBCallbackManager::IsMessageTypeHandled(type));
}

class RecordingDisconnectHandler : public KelMsgBBDisconnectHandler {
 public:
  void DetectDisconnection(int pid, const char* app, const char* host,
                           const char* user) const override {
    m_seen = std::to_string(pid) + "/" + app + "/" + host + "/" + user;
  }
  mutable std::string m_seen;
};

TEST_F(RegistryTest, DisconnectionReachesTheLastInstalledHandler) {
  RecordingDisconnectHandler first;
  RecordingDisconnectHandler second;
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&first);
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&second);
  KelMsgBBCallbackManager::Disconnection(42, "solver", "node7", "ana");
  EXPECT_EQ(second.m_seen, "42/solver/node7/ana");
  EXPECT_TRUE(first.m_seen.empty());
}

// Contract failures end the process with the report naming condition and file.
using RegistryDeathTest = RegistryTest;

TEST_F(RegistryDeathTest, CallerContractsEndTheProcess) {
  EXPECT_DEATH(KelMsgBBCallbackManager::AdoptPrototypeAndHandler(nullptr, nullptr),
               "AssertionFailed:proto != NULL -- "
               "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgBBCallbackManager, line [0-9]+");
  EXPECT_DEATH(KelMsgBBCallbackManager::TypeOfPendingMessage(),
               "AssertionFailed:m_messageToSend != 0");
  EXPECT_DEATH(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage(),
               "AssertionFailed:m_messageToSend != 0");
  char buffer[8];
  EXPECT_DEATH(KelMsgBBCallbackManager::StreamPendingMessage(buffer, sizeof buffer),
               "AssertionFailed:m_messageToSend != 0");
  EXPECT_DEATH(KelMsgBBCallbackManager::Disconnection(1, "a", "h", "u"),
               "AssertionFailed:m_disconnectHandler != 0");
  EXPECT_DEATH(KelMsgBBCallbackManager().GetHandler("Nothing"),
               "AssertionFailed:m_protos.IsMember\\(type\\)");
}

TEST_F(RegistryDeathTest, SecondRegistrationOfATypeEndsTheProcessAndKeepsTheFirst) {
  AdoptProbe();
  EXPECT_DEATH(KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new ProbeMessage(&m_log),
                                                                 new ProbeHandler(&m_log)),
               "AssertionFailed:!m_protos.IsMember\\(type\\)");
  Dispatch(Envelope(0, "still"));
  EXPECT_EQ(m_log.handled, 1);
}

TEST_F(RegistryDeathTest, NullHandlerOrNullCloneEndsTheProcess) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new ProbeMessage(&m_log), nullptr);
  EXPECT_DEATH(Dispatch(Envelope(0, "x")), "AssertionFailed:handler != NULL");

  class NullCloneMessage : public ProbeMessage {
   public:
    using ProbeMessage::ProbeMessage;
    KelMsgBBMessage* Clone() const override { return nullptr; }
  };
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new NullCloneMessage(&m_log, "Null"),
                                                    new ProbeHandler(&m_log));
  EXPECT_DEATH(Dispatch(Envelope(0, "x"), "Null"), "AssertionFailed:msg != NULL");
}

}  // namespace
