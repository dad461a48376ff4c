// The bus against raw libmosquitto, measured side by side in one run against
// one private broker (config/kelbus-mosquitto.conf on a free port), and the
// bus over mqtts:// (a second such broker with TLS and passwords) against
// the bus over mqtt://:
//   - round trip of a small message: KelMsgBBAPI (registry, waiting loop on
//     the caller's thread) versus a raw publish/subscribe echo at QoS 1;
//   - throughput of 64 KiB messages from one process to another.
// Raw libmosquitto's round trip over TLS beside its own in the clear shows
// what TLS costs the broker and the clients whoever drives them, the part of
// the bus's TLS round trip that the bus cannot save.
// All of them alternate (round trips in blocks, throughput in back-to-back
// rounds) so that they see the same machine load; on a shared machine single
// pairs still vary a lot, so the medians are the figures printed, as rows of
// the benchmark table (BenchTable.h).
//
//   kelbus_bench [round-trips per round] [messages per pair] [rounds]
#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchTable.h"
#include "ChildProcess.h"
#include "RawMqttClient.h"
#include "TestBroker.h"
#include "TestTlsFiles.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::duration;

constexpr int kSmallBytes = 16;
constexpr int kBlockBytes = 64 * 1024;
constexpr int kWarmUp = 20;
// Round trips are measured in this many alternating blocks per round.
constexpr int kBlocksPerRound = 10;
constexpr int kThroughputPairsPerRound = 2;

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "kelbus_bench: %s\n", why.c_str());
  std::exit(1);
}

// ---------------------------------------------------------------- the bus

// Calls a function for every string message; the sender's identifier is
// where answers go.
class StringHandler : public KelMsgBBMessageHandler {
 public:
  using Reaction = std::function<void(const KelMsgStringType&, const char* id)>;
  explicit StringHandler(Reaction reaction) : m_reaction(std::move(reaction)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_reaction(static_cast<const KelMsgStringType&>(msg), id);
  }

 private:
  Reaction m_reaction;
};

// Joins the bus as `app`, handling string messages with `reaction`.  A
// forked process first drops the handlers it inherited.
int JoinBus(const char* app, StringHandler::Reaction reaction) {
  { KelMsgBBCallbackManager inherited; }
  int id = 0;
  if (KelMsgBBAPI::RegisterCommunicator(app, id) != KELBUS_OK ||
      KelMsgBBAPI::DeclareApplicationId(id, app, true) != KELBUS_OK) {
    Die(std::string("cannot join the bus: ") + KelBusLastError());
  }
  KelMsgBBCallbackManager::SetMessageID(app);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                    new StringHandler(std::move(reaction)));
  KelMsgBBAPI::EnableReceiveHandling(id, app);
  return id;
}

int SendBytes(int communicator, const char* target, const std::string& bytes) {
  KelMsgStringType message;
  message.SetData(bytes.data(), static_cast<int>(bytes.size()));
  return KelMsgBBAPI::SendRequest(communicator, target, message);
}

// Echoes every message to its sender; an empty message ends the process.
int BusEcho() {
  int stop = -1;
  int id = 0;
  id = JoinBus("echo", [&](const KelMsgStringType& message, const char* from) {
    if (message.Size() == 0)
      stop = 0;
    KelMsgBBAPI::SendRequest(id, from, message);
  });
  KelMsgBBAPI::WaitingLoop(id, -1, stop);
  CloseCommunicator(id);
  return 0;
}

std::vector<double> BusRoundTrips(int pinger, int& answered, int count) {
  const std::string ping(kSmallBytes, 'p');
  std::vector<double> micros;
  for (int i = 0; i < kWarmUp + count; ++i) {
    const auto start = Clock::now();
    answered = -1;
    if (SendBytes(pinger, "echo", ping) != KELBUS_OK)
      Die(KelBusLastError());
    if (KelMsgBBAPI::WaitingLoop(pinger, 10000, answered) != KELBUS_OK)
      Die("no echo");
    if (i >= kWarmUp)
      micros.push_back(duration<double, std::micro>(Clock::now() - start).count());
  }
  return micros;
}

// Sends `count` blocks to "sink" once the sink says go.
int BusSource(int count) {
  int go = -1;
  const int id = JoinBus("source", [&](const KelMsgStringType&, const char*) { go = 0; });
  KelMsgBBAPI::WaitingLoop(id, -1, go);
  const std::string block(kBlockBytes, 'b');
  for (int i = 0; i < count; ++i) {
    if (SendBytes(id, "sink", block) != KELBUS_OK)
      return 1;
  }
  CloseCommunicator(id);
  return 0;
}

// Between two processes of the bus at `broker`.
double BusThroughput(const TestBroker& broker, int count) {
  broker.ExportUrl("bench");
  int received = 0;
  int done = -1;
  const int sink = JoinBus("sink", [&](const KelMsgStringType& message, const char*) {
    if (message.Size() != kBlockBytes)
      Die("a block of the wrong size");
    if (++received == count)
      done = 0;
  });
  ChildProcess source = ChildProcess::Fork([count] { return BusSource(count); });
  // The source says nothing until it can receive "go"; sending until it
  // arrives would time the source's start-up.
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = Clock::now();
  SendBytes(sink, "source", "go");
  if (KelMsgBBAPI::WaitingLoop(sink, 120000, done) != KELBUS_OK)
    Die("the blocks did not arrive");
  const double seconds = duration<double>(Clock::now() - start).count();
  if (source.ExitCode(std::chrono::seconds(30)) != 0)
    Die("the bus source failed");
  CloseCommunicator(sink);
  return count / seconds;
}

// ---------------------------------------------------------------- raw

// Lets one thread wait until another has raised it since the last wait.
class Signal {
 public:
  void Raise() {
    std::lock_guard lock(m_mutex);
    m_raised = true;
    m_changed.notify_all();
  }
  void Await() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_raised; });
    m_raised = false;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_raised = false;
};

void Subscribe(RawMqttClient& client, const char* topic) {
  if (!client.Connected() || !client.Subscribe(topic))
    Die(std::string("raw subscription to ") + topic);
}

// How a raw client reaches `broker`: over TLS with the bus's user when the
// broker asks for it.
RawMqttClient::Identity RawIdentity(const TestBroker& broker) {
  if (!broker.Url("").starts_with("mqtts://"))
    return {};
  const TestTlsFiles& files = TestTlsFiles::Get();
  return {.user = files.user, .password = files.password, .caFile = files.caFile};
}

// Echoes raw/ping to raw/pong from its network thread; an empty message ends
// it.
int RawEcho(const TestBroker& broker) {
  Signal stop;
  RawMqttClient* echo = nullptr;
  RawMqttClient client(
      broker.Port(),
      [&](const std::string&, const char* bytes, int size) {
        echo->Publish("raw/pong", bytes, size);
        if (size == 0)
          stop.Raise();
      },
      RawIdentity(broker));
  echo = &client;
  Subscribe(client, "raw/ping");
  stop.Await();
  return 0;
}

std::vector<double> RawRoundTrips(RawMqttClient& pinger, Signal& answered, int count) {
  const std::string ping(kSmallBytes, 'p');
  std::vector<double> micros;
  for (int i = 0; i < kWarmUp + count; ++i) {
    const auto start = Clock::now();
    if (!pinger.Publish("raw/ping", ping.data(), kSmallBytes))
      Die("raw publish");
    answered.Await();
    if (i >= kWarmUp)
      micros.push_back(duration<double, std::micro>(Clock::now() - start).count());
  }
  return micros;
}

double RawThroughput(int port, int count) {
  int received = 0;
  Signal done;
  RawMqttClient sink(port, [&](const std::string&, const char*, int size) {
    if (size != kBlockBytes)
      Die("a raw block of the wrong size");
    if (++received == count)
      done.Raise();
  });
  Subscribe(sink, "raw/blocks");
  const std::string block(kBlockBytes, 'b');
  ChildProcess source = ChildProcess::Fork([&] {
    Signal go;
    RawMqttClient client(port, [&go](const std::string&, const char*, int) { go.Raise(); });
    Subscribe(client, "raw/go");
    go.Await();
    for (int i = 0; i < count; ++i)
      client.Publish("raw/blocks", block.data(), kBlockBytes);
    go.Await();  // the sink's "done"
    return 0;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = Clock::now();
  sink.Publish("raw/go", "go", 2);
  done.Await();
  const double seconds = duration<double>(Clock::now() - start).count();
  sink.Publish("raw/go", "done", 4);
  if (source.ExitCode(std::chrono::seconds(30)) != 0)
    Die("the raw source failed");
  return count / seconds;
}

// ---------------------------------------------------------------- report

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double Percentile(std::vector<double> values, double fraction) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(fraction * (values.size() - 1))];
}

}  // namespace

int main(int argc, char** argv) {
  const int roundTrips = argc > 1 ? std::atoi(argv[1]) : 3000;
  const int blocks = argc > 2 ? std::atoi(argv[2]) : 1000;
  const int rounds = argc > 3 ? std::atoi(argv[3]) : 6;
  const TestBroker broker;
  const TestBroker tlsBroker(TestBroker::Security::kTlsAndPasswords);
  for (const TestBroker* started : {&broker, &tlsBroker}) {
    if (!started->Running())
      Die(started->Error());
  }

  // Round trips: every echo stays up, and blocks of each alternate.  Each
  // bus echo joins the bus whose URL is exported when it is forked.
  std::vector<double> busTrips, tlsTrips, rawTrips, rawTlsTrips;
  {
    tlsBroker.ExportUrl("bench");
    ChildProcess tlsEcho = ChildProcess::Fork(&BusEcho);
    broker.ExportUrl("bench");
    ChildProcess busEcho = ChildProcess::Fork(&BusEcho);
    ChildProcess rawEcho = ChildProcess::Fork([&] { return RawEcho(broker); });
    ChildProcess rawTlsEcho = ChildProcess::Fork([&] { return RawEcho(tlsBroker); });
    int answered = -1;
    const auto answer = [&](const KelMsgStringType&, const char*) { answered = 0; };
    const int pinger = JoinBus("pinger", answer);
    tlsBroker.ExportUrl("bench");
    const int tlsPinger = JoinBus("pinger", answer);
    Signal rawAnswered;
    const auto rawAnswer = [&](const std::string&, const char*, int) { rawAnswered.Raise(); };
    RawMqttClient rawPinger(broker.Port(), rawAnswer);
    RawMqttClient rawTlsPinger(tlsBroker.Port(), rawAnswer, RawIdentity(tlsBroker));
    Subscribe(rawPinger, "raw/pong");
    Subscribe(rawTlsPinger, "raw/pong");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const int perBlock = roundTrips / kBlocksPerRound;
    for (int block = 0; block < rounds * kBlocksPerRound; ++block) {
      const auto bus = BusRoundTrips(pinger, answered, perBlock);
      const auto raw = RawRoundTrips(rawPinger, rawAnswered, perBlock);
      const auto tls = BusRoundTrips(tlsPinger, answered, perBlock);
      const auto rawTls = RawRoundTrips(rawTlsPinger, rawAnswered, perBlock);
      busTrips.insert(busTrips.end(), bus.begin(), bus.end());
      rawTrips.insert(rawTrips.end(), raw.begin(), raw.end());
      tlsTrips.insert(tlsTrips.end(), tls.begin(), tls.end());
      rawTlsTrips.insert(rawTlsTrips.end(), rawTls.begin(), rawTls.end());
    }
    SendBytes(pinger, "echo", "");
    SendBytes(tlsPinger, "echo", "");
    rawPinger.Publish("raw/ping", "", 0);
    rawTlsPinger.Publish("raw/ping", "", 0);
    for (ChildProcess* echo : {&busEcho, &tlsEcho, &rawEcho, &rawTlsEcho})
      echo->ExitCode(std::chrono::seconds(10));
    CloseCommunicator(pinger);
    CloseCommunicator(tlsPinger);
  }
  // Throughput: bus, raw and TLS rounds back to back.
  std::vector<double> busRates, rawRates, tlsRates;
  for (int round = 0; round < rounds * kThroughputPairsPerRound; ++round) {
    busRates.push_back(BusThroughput(broker, blocks));
    rawRates.push_back(RawThroughput(broker.Port(), blocks));
    tlsRates.push_back(BusThroughput(tlsBroker, blocks));
  }

  const double micro = 1e-6;
  PrintBenchRow({"round trip, 16-byte message (median)", Median(busTrips) * micro,
                 "raw libmosquitto", Median(rawTrips) * micro, BenchUnit::kSeconds,
                 BenchGoal::kAtMost, 1.25});
  PrintBenchRow({"round trip, 16-byte message (90th percentile)", Percentile(busTrips, 0.9) * micro,
                 "raw libmosquitto", Percentile(rawTrips, 0.9) * micro, BenchUnit::kSeconds});
  PrintBenchRow({"throughput, 64 KiB messages (median of rounds)", Median(busRates) * kBlockBytes,
                 "raw libmosquitto", Median(rawRates) * kBlockBytes, BenchUnit::kBytesPerSecond,
                 BenchGoal::kAtLeast, 0.85});
  PrintBenchRow({"round trip, 16-byte message over mqtts:// (median)", Median(tlsTrips) * micro,
                 "the bus over mqtt://", Median(busTrips) * micro, BenchUnit::kSeconds,
                 BenchGoal::kAtMost, 1.3});
  PrintBenchRow({"round trip, 16-byte message over mqtts://, raw libmosquitto (median)",
                 Median(rawTlsTrips) * micro, "raw libmosquitto over mqtt://",
                 Median(rawTrips) * micro, BenchUnit::kSeconds});
  PrintBenchRow({"throughput, 64 KiB messages over mqtts:// (median of rounds)",
                 Median(tlsRates) * kBlockBytes, "the bus over mqtt://",
                 Median(busRates) * kBlockBytes, BenchUnit::kBytesPerSecond, BenchGoal::kAtLeast,
                 0.7});
  return 0;
}
