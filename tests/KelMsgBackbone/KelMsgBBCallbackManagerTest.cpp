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
  std::string bytes(count, sizeof count);
  bytes += rest;
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

TEST_F(RegistryTest, DispatchClonesUnstreamsCallsHandlerAndCleansUp) {
  const ProbeMessage* proto = AdoptProbe();
  KelMsgBBCallbackManager::SetMessageID("job-1");
  ProbeLog senderLog;
  const ProbeMessage outgoing(&senderLog, "ProbeMessage", std::string("a\0b", 3));

  Dispatch(Frame(outgoing));

  EXPECT_EQ(m_log.clones, 1);
  EXPECT_EQ(m_log.unstreams, 1);
  ASSERT_EQ(m_log.handled, 1);
  EXPECT_EQ(m_log.ids[0], "job-1");
  EXPECT_EQ(m_log.payloads[0], std::string("a\0b", 3));
  EXPECT_NE(m_log.received[0], proto) << "the handler must get the clone";
  EXPECT_EQ(m_log.destroyed, 1) << "the clone is deleted once the handler returns";
  EXPECT_TRUE(proto->Payload().empty()) << "the prototype is never filled";
}

TEST_F(RegistryTest, EnvelopeCarriesTheIdentifierBytesBeforeThePayload) {
  ProbeLog log;
  const ProbeMessage msg(&log, "ProbeMessage", "xyz");
  struct Case {
    const char* id;
    std::string expected;
  };
  const Case cases[] = {
      {"", std::string("\0\0\0\0xyz", 7)},
      {"job-1", std::string("\5\0\0\0job-1xyz", 12)},
      {"\xC3\xA9", std::string("\2\0\0\0\xC3\xA9xyz", 9)},
  };
  for (const Case& c : cases) {
    KelMsgBBCallbackManager::SetMessageID(c.id);
    const std::vector<char> buffer = Frame(msg);
    EXPECT_EQ(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage(),
              static_cast<int>(c.expected.size()));
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), c.expected) << "id " << c.id;
    EXPECT_STREQ(KelMsgBBCallbackManager::TypeOfPendingMessage(), "ProbeMessage");
  }
}

TEST_F(RegistryTest, EmptyIdentifierReachesTheHandlerAsEmptyText) {
  AdoptProbe();
  Dispatch(Envelope(0, "p"));
  ASSERT_EQ(m_log.handled, 1);
  EXPECT_EQ(m_log.ids[0], "");
  EXPECT_EQ(m_log.payloads[0], "p");
}

TEST_F(RegistryTest, ShortOrInconsistentEnvelopesAreRefusedWithoutCloning) {
  AdoptProbe();
  FatalErrorCapture capture;
  for (int size = 0; size < 4; ++size) {
    const std::vector<char> shortBuffer(static_cast<std::size_t>(size), '\0');
    Dispatch(shortBuffer);
  }
  Dispatch(Envelope(-1, "abc"));
  Dispatch(Envelope(4, "abc"));
  Dispatch(Envelope(INT32_MAX, ""));
  Dispatch(Envelope(INT32_MIN, "abcd"));

  EXPECT_EQ(m_log.clones, 0);
  EXPECT_EQ(m_log.handled, 0);
  const std::vector<std::string> expected = {
      "AssertionFailed:size >= 4",
      "AssertionFailed:size >= 4",
      "AssertionFailed:size >= 4",
      "AssertionFailed:size >= 4",
      "AssertionFailed:n >= 0 && n <= size - 4",
      "AssertionFailed:n >= 0 && n <= size - 4",
      "AssertionFailed:n >= 0 && n <= size - 4",
      "AssertionFailed:n >= 0 && n <= size - 4",
  };
  EXPECT_EQ(capture.Messages(), expected);
  EXPECT_EQ(capture.Reports()[0].path, kRegistryPath);

  // The registry keeps working after refusing.
  Dispatch(Envelope(3, "abcdef"));
  ASSERT_EQ(m_log.handled, 1);
  EXPECT_EQ(m_log.ids[0], "abc");
  EXPECT_EQ(m_log.payloads[0], "def");
}

TEST_F(RegistryTest, RefusedPayloadNeverReachesTheHandler) {
  AdoptProbe();
  FatalErrorCapture capture;
  Dispatch(Envelope(0, "!bad"));
  EXPECT_EQ(m_log.unstreams, 1);
  EXPECT_EQ(m_log.handled, 0);
  EXPECT_EQ(m_log.destroyed, 1) << "the refused clone is still released";
  ASSERT_EQ(capture.Reports().size(), 1U);

  Dispatch(Envelope(0, "good"));
  EXPECT_EQ(m_log.handled, 1) << "a refusal does not stick to the next message";
}

TEST_F(RegistryTest, UnregisteredTypeIsReportedAndNotDispatched) {
  AdoptProbe();
  FatalErrorCapture capture;
  EXPECT_FALSE(KelMsgBBCallbackManager::IsMessageTypeHandled("Unknown"));
  EXPECT_TRUE(capture.Reports().empty()) << "asking is not a failure";

  Dispatch(Envelope(0, "x"), "Unknown");
  EXPECT_EQ(m_log.clones, 0);
  EXPECT_EQ(m_log.handled, 0);
  ASSERT_EQ(capture.Reports().size(), 1U);
  EXPECT_EQ(capture.Reports()[0].message, "AssertionFailed:m_protos.IsMember(type)");
  EXPECT_EQ(capture.Reports()[0].path, kRegistryPath);
}

TEST_F(RegistryTest, DestructionDeletesEachPrototypeAndHandlerOnce) {
  ProbeLog log;
  for (const char* type : {"B", "A", "C"}) {
    KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new ProbeMessage(&log, type),
                                                      new ProbeHandler(&log));
  }
  EXPECT_TRUE(KelMsgBBCallbackManager::IsMessageTypeHandled("A"));
  { KelMsgBBCallbackManager registry; }
  EXPECT_EQ(log.destroyed, 3);
  EXPECT_EQ(log.handlersDestroyed, 3);
  for (const char* type : {"A", "B", "C"}) {
    EXPECT_FALSE(KelMsgBBCallbackManager::IsMessageTypeHandled(type));
  }
}

TEST_F(RegistryTest, GetHandlerReturnsTheAdoptedHandler) {
  ProbeLog log;
  auto* handler = new ProbeHandler(&log);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new ProbeMessage(&log, "T"), handler);
  KelMsgBBCallbackManager registry;
  EXPECT_EQ(registry.GetHandler("T"), handler);
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
  ProbeLog log;
  EXPECT_DEATH(KelMsgBBCallbackManager::AdoptPrototypeAndHandler(nullptr, nullptr),
               "AssertionFailed:proto != NULL -- "
               "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgBBCallbackManager, line [0-9]+");
  EXPECT_DEATH(KelMsgBBCallbackManager::TypeOfPendingMessage(),
               "AssertionFailed:m_messageToSend != 0");
  EXPECT_DEATH(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage(),
               "AssertionFailed:m_messageToSend != 0");
  EXPECT_DEATH(
      {
        char buffer[8];
        KelMsgBBCallbackManager::StreamPendingMessage(buffer, sizeof buffer);
      },
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
