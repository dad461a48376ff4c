// KelMsgBBAPI and the registry across real processes and a real broker:
// a long stream of random binary messages, and handlers that send and wait
// again from inside their callback.
#include <gtest/gtest.h>
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <array>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "BlobMessage.h"
#include "ChildProcess.h"
#include "TestBroker.h"

using namespace std::chrono_literals;

namespace {

class KelMsgBBAPIBroker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(m_broker.Running()) << m_broker.Error();
    m_broker.ExportUrl("test");
  }
  void TearDown() override { KelMsgBBCallbackManager registry; }

  TestBroker m_broker;
};

// Joins the bus as `app` with `app` as message identifier; 0 on failure.
int Join(const char* app) {
  int id = 0;
  if (KelMsgBBAPI::RegisterCommunicator(app, id) != KELBUS_OK)
    return 0;
  if (KelMsgBBAPI::DeclareApplicationId(id, app, false) != KELBUS_OK)
    return 0;
  KelMsgBBCallbackManager::SetMessageID(app);
  if (KelMsgBBAPI::EnableReceiveHandling(id, app) != KELBUS_OK)
    return 0;
  return id;
}

// The stream: message i has a type from kTypes and random bytes, NULs
// included, of 0 bytes to 1 MiB; most are small, every 200th is large.
constexpr int kStreamLength = 3000;
const std::array<std::string, 5> kTypes = {"Blob", "Blob/with+odd#chars",
                                           "Bl\xC3\xB6"
                                           "b",
                                           std::string(300, 'L'), "blob"};

std::string StreamType(int i) {
  return kTypes[static_cast<std::size_t>(i) % kTypes.size()];
}

std::string StreamBytes(int i) {
  std::mt19937 random(static_cast<unsigned>(i));
  std::size_t size = 0;
  if (i == 1) {
    size = 1 << 20;
  } else if (i % 200 == 0 && i > 0) {
    size = std::uniform_int_distribution<std::size_t>(64 << 10, 1 << 20)(random);
  } else if (i != 0) {
    size = std::uniform_int_distribution<std::size_t>(0, 1500)(random);
  }
  std::string bytes(size, '\0');
  for (std::size_t j = 0; j < size; j += 4) {
    const auto word = random();
    for (std::size_t k = 0; k < 4 && j + k < size; ++k)
      bytes[j + k] = static_cast<char>(word >> (8 * k));
  }
  for (std::size_t j = 0; j < size; j += 97)
    bytes[j] = '\0';
  return bytes;
}

TEST_F(KelMsgBBAPIBroker, AStreamOfRandomMessagesArrivesInOrderAndIntact) {
  const int sink = Join("sink");
  ASSERT_NE(sink, 0) << KelBusLastError();
  int next = 0;
  int ended = -1;
  std::vector<std::string> faults;
  std::string senderId;
  for (const std::string& type : kTypes) {
    HandleBlobs(type, [&](const BlobMessage& message, const std::string& id) {
      if (next == 0)
        senderId = id;
      if (message.Type() != StreamType(next) || message.Bytes() != StreamBytes(next) ||
          id != senderId) {
        faults.push_back("message " + std::to_string(next) + " of type " + message.Type() +
                         " and " + std::to_string(message.Bytes().size()) + " bytes from " + id);
      }
      if (++next == kStreamLength)
        ended = 0;
    });
  }
  ChildProcess source = ChildProcess::Fork([] {
    const std::string id = "source-" + std::to_string(getpid());
    int communicator = 0;
    if (KelMsgBBAPI::RegisterCommunicator("source", communicator) != KELBUS_OK)
      return 1;
    KelMsgBBCallbackManager::SetMessageID(id.c_str());
    for (int i = 0; i < kStreamLength; ++i) {
      if (KelMsgBBAPI::SendRequest(communicator, "sink",
                                   BlobMessage(StreamType(i), StreamBytes(i))) != KELBUS_OK) {
        return 2;
      }
    }
    return CloseCommunicator(communicator) == KELBUS_OK ? 0 : 3;
  });
  // A receiver slower than its sender: nothing may be lost meanwhile.
  std::this_thread::sleep_for(1s);
  const int waited = KelMsgBBAPI::WaitingLoop(sink, 120000, ended);
  EXPECT_EQ(source.ExitCode(60s), 0);
  EXPECT_EQ(waited, KELBUS_OK);
  EXPECT_EQ(next, kStreamLength);
  EXPECT_EQ(senderId, "source-" + std::to_string(source.Pid()));
  EXPECT_TRUE(faults.empty()) << faults.size() << " faults, the first: " << faults.front();
  CloseCommunicator(sink);
}

// The server answers a request by pinging the client and waiting, inside
// the request's handler, for the client's pong; then it says done.
TEST_F(KelMsgBBAPIBroker, AHandlerSendsAndWaitsAgainInsideItsCallback) {
  const int server = Join("server");
  ASSERT_NE(server, 0) << KelBusLastError();
  std::vector<std::string> steps;
  int pong = -1;
  int served = -1;
  HandleBlobs("Request", [&](const BlobMessage& message, const std::string& id) {
    steps.push_back("request " + message.Bytes() + " from " + id);
    KelMsgBBAPI::SendRequest(server, id.c_str(), BlobMessage("Ping"));
    pong = -1;
    const int waited = KelMsgBBAPI::WaitingLoop(server, 10000, pong);
    steps.push_back("nested wait " + std::to_string(waited));
    KelMsgBBAPI::SendRequest(server, id.c_str(), BlobMessage("Done"));
    served = 0;
  });
  HandleBlobs("Pong", [&](const BlobMessage&, const std::string&) {
    steps.push_back("pong");
    pong = 0;
  });
  ChildProcess client = ChildProcess::Fork([] {
    KelMsgBBCallbackManager registry;  // this process's own handlers go with it
    const int id = Join("client");
    if (id == 0)
      return 1;
    int done = -1;
    HandleBlobs("Ping", [id](const BlobMessage&, const std::string& from) {
      KelMsgBBAPI::SendRequest(id, from.c_str(), BlobMessage("Pong"));
    });
    HandleBlobs("Done", [&done](const BlobMessage&, const std::string&) { done = 0; });
    if (KelMsgBBAPI::SendRequest(id, "server", BlobMessage("Request", "42")) != KELBUS_OK)
      return 2;
    return KelMsgBBAPI::WaitingLoop(id, 20000, done) == KELBUS_OK ? 0 : 3;
  });
  ASSERT_EQ(KelMsgBBAPI::WaitingLoop(server, 20000, served), KELBUS_OK);
  EXPECT_EQ(client.ExitCode(20s), 0);
  EXPECT_EQ(steps, (std::vector<std::string>{"request 42 from client", "pong", "nested wait 0"}));
  CloseCommunicator(server);
}

}  // namespace
