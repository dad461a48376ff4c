// The backbone core.  The registry: the envelope around each message sent,
// dispatch of each one received to its handler as a clone, refusal of what
// another process got wrong, and ownership of what it adopts.
// KelMsgBBApplication on the in-process bus: what a refused join leaves,
// and when the application leaves; that a joined application receives under
// its name and sends under it as identifier, the fault and file-transfer
// tests see on every message their controller exchanges.
#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

#include "FatalErrorCapture.h"
#include "TextMessages.h"

namespace {

using Manager = KelMsgBBCallbackManager;
using Strings = std::vector<std::string>;

std::string Int32(std::int32_t value) {
  return std::string(reinterpret_cast<const char*>(&value), 4);
}

// Probes and recorders alive, so that a test sees each one deleted.
int g_live = 0;
// What the recorders were handed, raw string messages all: "identifier|text".
Strings g_seen;

class Probe : public KelMsgStringType {
 public:
  Probe() { ++g_live; }
  ~Probe() override { --g_live; }
  KelMsgBBMessage* Clone() const override { return new Probe; }
};

class Recorder : public KelMsgBBMessageHandler {
 public:
  Recorder() { ++g_live; }
  ~Recorder() override { --g_live; }
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    g_seen.push_back(id + ("|" + TextOf(msg)));
  }
};

// Hands the registry a copy of exactly `buffer.size()` bytes, so that the
// sanitizer sees any read past its end.
void Dispatch(const std::string& buffer, const char* type = "KelMsgStringType") {
  const std::unique_ptr<char[]> exact(new char[buffer.size()]);
  buffer.copy(exact.get(), buffer.size());
  Manager::HandleMessage(type, exact.get(), static_cast<int>(buffer.size()));
}

// Every test ends with the registry destroyed, which deletes each adopted
// object once, of two types at least, and forgets every type.
class Registry : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Manager::AdoptPrototypeAndHandler(m_proto = new Probe, m_handler = new Recorder);
    Manager::AdoptPrototypeAndHandler(new KelMsgAnalysisMessageType, new Recorder);
  }
  void TearDown() override {
    {
      Manager registry;
      EXPECT_EQ(registry.GetHandler("KelMsgStringType"), m_handler);
    }
    EXPECT_EQ(g_live, 0);
    EXPECT_FALSE(Manager::IsMessageTypeHandled("KelMsgStringType"));
    Manager::SetMessageID("");
    Manager::AppendMessageToSend(nullptr);
    Manager::AssociateDisconnectHandler(nullptr);
    g_seen.clear();
  }
  Probe* m_proto = nullptr;
  Recorder* m_handler = nullptr;
};

TEST_F(Registry, EachMessageTravelsBehindTheIdentifierAndReachesTheHandlerAsAClone) {
  // identifier, payload
  const std::pair<const char*, std::string> cases[] = {
      {"", std::string("x\0z", 3)}, {"job-1", ""}, {"\xC3\xA9", "x"}};
  for (const auto& [id, payload] : cases) {
    Manager::SetMessageID(id);
    KelMsgStringType outgoing;
    outgoing.SetData(payload.data(), static_cast<int>(payload.size()));
    Manager::AppendMessageToSend(&outgoing);
    std::string buffer(static_cast<std::size_t>(Manager::RequiredBufferSizeOfPendingMessage()),
                       '?');
    Manager::StreamPendingMessage(buffer.data(), static_cast<int>(buffer.size()));
    EXPECT_EQ(buffer, Int32(static_cast<std::int32_t>(std::strlen(id))) + id + payload);
    EXPECT_STREQ(Manager::TypeOfPendingMessage(), "KelMsgStringType");
    Dispatch(buffer);
  }
  EXPECT_EQ(g_seen, (Strings{std::string("|x\0z", 4), "job-1|", "\xC3\xA9|x"}));
  EXPECT_EQ(m_proto->RequiredBufferSize(), 0) << "the prototype is never filled";
}

// A type's own refusals, and types not registered, are the fault scenario's
// (KelMsgFaultTest, garbage from a foreign client).
TEST_F(Registry, AnEnvelopeAnotherProcessGotWrongIsReportedAndReachesNoHandler) {
  const char* const kCount = "AssertionFailed:n >= 0 && n <= size - 4";
  // buffer, report
  const std::pair<std::string, const char*> cases[] = {
      {"", "AssertionFailed:size >= 4"},
      {std::string(3, '\0'), "AssertionFailed:size >= 4"},
      {Int32(-1) + "abc", kCount},
      {Int32(4) + "abc", kCount},
      {Int32(INT32_MIN) + "abc", kCount}};
  for (const auto& [buffer, report] : cases) {
    FatalErrorCapture capture;
    Dispatch(buffer);
    EXPECT_EQ(capture.Messages(), Strings{report}) << buffer.size();
  }
  EXPECT_TRUE(g_seen.empty());
}

class NullClone : public KelMsgProcessControlType {
  KelMsgBBMessage* Clone() const override { return nullptr; }
};

using RegistryDeathTest = Registry;

TEST_F(RegistryDeathTest, BrokenContractsEndTheProcess) {
  EXPECT_DEATH(Manager::AdoptPrototypeAndHandler(nullptr, nullptr),
               "AssertionFailed:proto != NULL -- "
               "KelMsgFeaMessaging/KelMsgBackbone.m/src/KelMsgBBCallbackManager, line [0-9]+");
  EXPECT_DEATH(Manager::AdoptPrototypeAndHandler(new Probe, new Recorder),
               "AssertionFailed:!m_protos.IsMember\\(type\\)");
  EXPECT_DEATH(Manager().GetHandler("Unknown"), "AssertionFailed:m_protos.IsMember\\(type\\)");
  EXPECT_DEATH(Manager::TypeOfPendingMessage(), "AssertionFailed:m_messageToSend != 0");
  EXPECT_DEATH(Manager::RequiredBufferSizeOfPendingMessage(),
               "AssertionFailed:m_messageToSend != 0");
  char buffer[8];
  EXPECT_DEATH(Manager::StreamPendingMessage(buffer, 8), "AssertionFailed:m_messageToSend != 0");
  const KelMsgStringType empty;
  Manager::AppendMessageToSend(&empty);
  Manager::SetMessageID("job-1");
  EXPECT_DEATH(Manager::StreamPendingMessage(buffer, 8),
               "AssertionFailed:size >= kCountBytes \\+ n");
  EXPECT_DEATH(Manager::Disconnection(1, "a", "h", "u"),
               "AssertionFailed:m_disconnectHandler != 0");
  Manager::AdoptPrototypeAndHandler(new NullClone, new Recorder);
  EXPECT_DEATH(Dispatch(Int32(0), "KelMsgProcessControlType"), "AssertionFailed:msg != NULL");
  Manager::AdoptPrototypeAndHandler(new KelMsgFileTransferType, nullptr);
  EXPECT_DEATH(Dispatch(Int32(0) + std::string(44, '\0'), "KelMsgFileTransferType"),
               "AssertionFailed:handler != NULL");
}

class KelMsgBBApplicationTest : public ::testing::Test {
 protected:
  KelMsgBBApplicationTest() { setenv("KELBUS_URL", "local:", 1); }
};

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
  EXPECT_EQ(moved.Send("solver", KelMsgStringType()), KELBUS_OK);
  EXPECT_FALSE(KelMsgBBApplication("solver").Joined());

  moved = KelMsgBBApplication("mesher");
  EXPECT_STREQ(moved.Name(), "mesher");
  EXPECT_TRUE(moved.Joined());
  EXPECT_TRUE(KelMsgBBApplication("solver").Joined()) << "the name was given back";
}

}  // namespace
