// What a bus with TLS and passwords refuses: brokers it cannot trust and
// clients without the right password, each in one line that names the
// reason and never the password.
#include <gtest/gtest.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <string_view>
#include <vector>

#include "BusTopics.h"
#include "FatalErrorCapture.h"
#include "KelmsgProcess.h"
#include "PeerController.h"
#include "ProcessRecord.h"
#include "RawMqttClient.h"
#include "TestBroker.h"
#include "TestTlsFiles.h"
#include "TextMessages.h"

namespace {

using kelbus::ProcessRecord;

struct DepartureNotes : KelMsgBBDisconnectHandler {
  void DetectDisconnection(int, const char* app, const char*, const char*) const override {
    apps.push_back(app);
  }
  mutable std::vector<std::string> apps;
};

std::atomic<int> lostConnections{0};

void CountLostConnections(const char* line) {
  if (std::string_view(line).find("lost the connection") != std::string_view::npos)
    ++lostConnections;
}

// Lost connections the bus reported since the last call.
int LostConnections() {
  return lostConnections.exchange(0);
}

std::string FirstLine(const std::string& path) {
  std::string line;
  std::getline(std::ifstream(path), line);
  return line;
}

// The bytes of a string message whose envelope names `claimed` as its sender.
std::string Envelope(const char* claimed, const std::string& text) {
  KelMsgStringType message;
  message.SetData(text.data(), static_cast<int>(text.size()));
  KelMsgBBCallbackManager::SetMessageID(claimed);
  KelMsgBBCallbackManager::AppendMessageToSend(&message);
  std::string bytes(
      static_cast<std::size_t>(KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage()),
      '\0');
  KelMsgBBCallbackManager::StreamPendingMessage(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

TEST(KelBusSecurity, UntrustedBrokersAndWrongPasswordsAreRefusedInOneLine) {
  const TestBroker broker(TestBroker::Security::kTlsAndPasswords);
  ASSERT_TRUE(broker.Running()) << broker.Error();
  const TestTlsFiles& files = TestTlsFiles::Get();
  const std::string port = std::to_string(broker.Port());
  const std::string user = "mqtts://" + files.user;
  struct Row {
    std::string url, caFile, passwordFile;
    const char* why;
  };
  const Row rows[] = {
      {user + "@127.0.0.1:" + port, files.otherCaFile, files.userPasswordFile,
       "certificate verify failed"},
      // 127.1 is 127.0.0.1 under a name that the certificate does not hold.
      {user + "@127.1:" + port, files.caFile, files.userPasswordFile,
       "host name verification failed"},
      {user + "@127.0.0.1:" + port, files.caFile, files.wrongPasswordFile, "Not authorized"},
      {user + ":" + files.password + "x@127.0.0.1:" + port, files.caFile, "", "Not authorized"},
  };
  for (const Row& row : rows) {
    setenv("KELBUS_URL", row.url.c_str(), 1);
    setenv("KELBUS_CA_FILE", row.caFile.c_str(), 1);
    setenv("KELBUS_PASSWORD_FILE", row.passwordFile.c_str(), 1);
    ::testing::internal::CaptureStderr();
    int id = 0;
    EXPECT_EQ(RegisterCommunicator("intruder", &id), KELBUS_ERR_REFUSED) << row.why;
    const std::string line = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::ranges::count(line, '\n'), 1) << line;
    EXPECT_NE(line.find(row.why), std::string::npos) << line;
    EXPECT_EQ(line.find(files.password), std::string::npos) << line;
  }
}

}  // namespace

// One stranger with a valid password ("eve") against the applications
// "solver" and "monitor" of a broker configured as shipped: every attack
// fails, no departure is reported, "eve" reads nothing of theirs, and
// "monitor" still reaches "solver" afterwards.
TEST(KelBusSecurity, AStrangerWithAPasswordCanNeitherForgeNorRead) {
  const TestBroker broker(TestBroker::Security::kSite);
  ASSERT_TRUE(broker.Running()) << broker.Error();
  const TestTlsFiles& files = TestTlsFiles::Get();
  const auto joinAs = [&](const std::string& user) {
    broker.ExportUrl();
    unsetenv("KELBUS_DEPARTURE_DELAY_SECONDS");  // as a real holder has it
    const std::string url = broker.Url();
    setenv("KELBUS_URL", ("mqtts://" + user + url.substr(url.find('@'))).c_str(), 1);
    setenv("KELBUS_PASSWORD_FILE", files.PasswordFileOf(user).c_str(), 1);
  };
  joinAs("solver");
  FatalErrorCapture reports;
  KelBusSetDiagnosticSink(CountLostConnections);
  PeerController solver("solver");
  ASSERT_TRUE(solver.Bus().Joined()) << KelBusLastError();
  DepartureNotes departures;  // heard while the solver waits
  ASSERT_EQ(solver.Bus().WatchDepartures(departures), KELBUS_OK);
  joinAs("monitor");
  const KelMsgBBApplication monitor("monitor");
  ASSERT_TRUE(monitor.Joined()) << KelBusLastError();

  const RawMqttClient::Identity eve{
      .user = "eve", .password = FirstLine(files.PasswordFileOf("eve")), .caFile = files.caFile};
  std::mutex seenMutex;
  std::vector<std::string> seen;
  RawMqttClient reader(
      broker.Port(),
      [&](const std::string& topic, const char*, int) {
        const std::lock_guard lock(seenMutex);
        seen.push_back(topic);
      },
      eve);
  ASSERT_TRUE(reader.Connected() && reader.Subscribe("kelbus/#"));
  RawMqttClient attacker(broker.Port(), {}, eve);
  ASSERT_TRUE(attacker.Connected());

  ProcessRecord forged;
  forged.kind = ProcessRecord::Kind::kDeparted;
  forged.app = "solver";
  const std::string kill = Envelope("monitor", "kill");
  const std::string kString = KelMsgStringType().Type();
  struct Attack {
    const char* name;
    std::function<bool()> succeeded;
  };
  const Attack attacks[] = {
      {"a forged departure record",
       [&] { return attacker.PublishAccepted("kelbus/p/solver", forged.Encode(), "", true); }},
      {"the holder's client identifier and a forged presence record",
       [&] {
         forged.kind = ProcessRecord::Kind::kPresent;
         RawMqttClient thief(broker.Port(), {},
                             {.clientId = "kelbus/a/solver",
                              .user = eve.user,
                              .password = eve.password,
                              .caFile = eve.caFile});
         return thief.PublishAccepted("kelbus/p/solver", forged.Encode(), "", true);
       }},
      // The broker lets a client identifier displace whoever uses it; eve
      // can work out the name's own and the one her password would give.
      {"the holder's client identifiers that eve can work out, resuming the session",
       [&] {
         std::atomic<int> stolen{0};
         for (const std::string& id :
              {std::string("kelbus/a/solver"),
               kelbus::BusTopics("kelbus", eve.password).HolderClientId("solver")}) {
           const RawMqttClient thief(broker.Port(), [&](const auto&...) { ++stolen; },
                                     {.clientId = id,
                                      .user = eve.user,
                                      .password = eve.password,
                                      .caFile = eve.caFile,
                                      .resumeSession = true});
           SendText(monitor, "solver", "while eve holds " + id);
           solver.TakeAnswer("monitor", "while", std::chrono::seconds(1));
         }
         return stolen > 0;
       }},
      // Eve may write her own presence topic; a record there that names
      // another application is a forgery all the same.
      {"solver's departure record on eve's own topic",
       [&] {
         forged.kind = ProcessRecord::Kind::kDeparted;
         attacker.PublishAccepted("kelbus/p/eve", forged.Encode(), "", true);
         return false;  // no departure may be reported: checked below
       }},
      {"an envelope that claims another application",
       [&] {
         attacker.PublishAccepted("kelbus/a/solver/eve", kill, kString);
         return solver.TakeAnswer("monitor", "kill", std::chrono::seconds(2)).has_value();
       }},
      {"another application's sender level",
       [&] { return attacker.PublishAccepted("kelbus/a/solver/monitor", kill, kString); }},
      {"no sender level",
       [&] { return attacker.PublishAccepted("kelbus/a/solver", kill, kString); }},
  };
  for (const Attack& attack : attacks) {
    EXPECT_FALSE(attack.succeeded()) << attack.name;
    bool arrived = false;
    for (int i = 0; i < 20 && !arrived; ++i) {
      SendText(monitor, "solver", std::string("after ") + attack.name);
      arrived = solver.TakeAnswer("monitor", "after", std::chrono::milliseconds(500)).has_value();
    }
    EXPECT_TRUE(arrived) << "solver no longer reached after " << attack.name;
    EXPECT_EQ(LostConnections(), 0) << attack.name;
    EXPECT_TRUE(departures.apps.empty()) << attack.name << ": " << departures.apps.front();
  }
  KelBusSetDiagnosticSink(nullptr);
  const std::lock_guard lock(seenMutex);
  for (const std::string& topic : seen)
    EXPECT_TRUE(topic.starts_with("kelbus/p/") || topic.starts_with("kelbus/c/")) << topic;
  ASSERT_FALSE(reports.Messages().empty());
  EXPECT_EQ(reports.Messages().front(),
            "message of type KelMsgStringType claims to come from 'monitor' but 'eve' sent it; "
            "refused");
}

// Two users granted one application as `kelmsg bus user add --app` grants
// it: the second takes it over, and the first, which the broker does not
// disconnect, gives the name up and receives nothing more.
TEST(KelBusSecurity, AHolderTakenOverByAnotherUserGivesTheNameUp) {
  const ScratchDirectory state;
  for (const char* user : {"solver", "monitor"})
    KelmsgProcess({"bus", "user", "add", user, "--app", "shared", "--state-dir", state / ""})
        .ExitCode();
  KelmsgProcess bus(
      {"bus", "--tls", "--auth", "--state-dir", state / "", "--ports", "20000-29999"});
  ASSERT_TRUE(bus.WaitForOutput(".password\n")) << bus.Err();
  bus.ExportPrintedSettings();
  const std::string url = getenv("KELBUS_URL");
  const auto holder = [&](const std::string& user, const char* app, int flag) {
    setenv("KELBUS_URL", std::regex_replace(url, std::regex("//[^@]*@"), "//" + user + "@").c_str(),
           1);
    setenv("KELBUS_PASSWORD_FILE", (state / ("users/" + user + ".password")).c_str(), 1);
    int id = 0;
    EXPECT_EQ(RegisterCommunicator("test", &id), KELBUS_OK) << KelBusLastError();
    EXPECT_EQ(DeclareApplicationId(id, app, flag), KELBUS_OK) << KelBusLastError();
    return id;
  };
  static int arrivals[2];  // at the first holder, at the second
  const int first = holder("solver", "shared", 0);
  AssociateHandler(first, nullptr, [](const char*, const void*, int) { ++arrivals[0]; });
  ::testing::internal::CaptureStderr();
  const int second = holder("monitor", "shared", 1);
  AssociateHandler(second, nullptr, [](const char*, const void*, int) { ++arrivals[1]; });
  ASSERT_EQ(SendText(KelMsgBBApplication("monitor"), "shared", "after the take-over"), KELBUS_OK);
  EXPECT_EQ(WaitingLoop(second, 10000, &arrivals[1]), KELBUS_OK);
  EXPECT_EQ(WaitingLoop(first, 2000, &arrivals[0]), KELBUS_ERR_NAME_LOST);
  EXPECT_EQ(arrivals[0], 0);
  const std::string said = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("KelBus: application 'shared' was taken over by process " +
                      std::to_string(getpid())),
            std::string::npos)
      << said;
  for (const int id : {first, second})
    CloseCommunicator(id);
}

// Every shipped broker configuration bounds a message and what it queues
// per client.
TEST(KelBusSecurity, ShippedBrokersHaveFiniteLimits) {
  for (const std::string path : {KELMSG_BROKER_CONFIGURATION, KELMSG_SITE_CONFIGURATION}) {
    std::ifstream file(path);
    std::map<std::string, long long> values;
    for (std::string key, rest; file >> key && std::getline(file, rest);)
      values[key] = std::atoll(rest.c_str());
    EXPECT_GT(values["max_packet_size"], 64 << 20) << path;
    EXPECT_LE(values["max_packet_size"], 65 << 20) << path;
    EXPECT_GT(values["max_queued_bytes"], 0) << path;
    EXPECT_LE(values["max_queued_bytes"], 1LL << 30) << path;
  }
}
