// The bus against raw libmosquitto, measured side by side in one run against
// one private broker (config/kelbus-mosquitto.conf on a free port):
//   - round trip of a small message: KelMsgBBAPI (registry, waiting loop on
//     the caller's thread) versus a raw publish/subscribe echo at QoS 1;
//   - throughput of 64 KiB messages from one process to another.
// The two alternate (round trips in blocks, throughput in back-to-back
// pairs) so that both see the same machine load; on a shared machine single
// pairs still vary a lot, so the medians are the figures to read.
//
//   kelbus_bench [round-trips per round] [messages per pair] [rounds]
#include <mosquitto.h>
#include <mqtt_protocol.h>
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

#include "ChildProcess.h"
#include "TestBroker.h"

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

double BusThroughput(int count) {
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

// One libmosquitto client on its own network thread, MQTT 5, QoS 1.
class RawClient {
 public:
  using Reaction = std::function<void(RawClient&, const mosquitto_message&)>;

  RawClient(int port, const std::string& subscription, Reaction reaction)
      : m_reaction(std::move(reaction)) {
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_int_option(m_mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_message_callback_set(m_mosq, [](mosquitto*, void* self, const mosquitto_message* m) {
      auto& client = *static_cast<RawClient*>(self);
      client.m_reaction(client, *m);
    });
    mosquitto_publish_callback_set(m_mosq, [](mosquitto*, void* self, int) {
      auto& client = *static_cast<RawClient*>(self);
      std::lock_guard lock(client.m_mutex);
      --client.m_inFlight;
      client.m_changed.notify_all();
    });
    mosquitto_subscribe_callback_set(m_mosq, [](mosquitto*, void* self, int, int, const int*) {
      auto& client = *static_cast<RawClient*>(self);
      std::lock_guard lock(client.m_mutex);
      client.m_subscribed = true;
      client.m_changed.notify_all();
    });
    if (mosquitto_connect(m_mosq, "127.0.0.1", port, 10) != MOSQ_ERR_SUCCESS)
      Die("raw connect");
    mosquitto_loop_start(m_mosq);
    mosquitto_subscribe(m_mosq, nullptr, subscription.c_str(), 1);
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_subscribed; });
  }

  ~RawClient() {
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, false);
    mosquitto_destroy(m_mosq);
  }

  // Publishes once fewer than `window` bytes wait for the broker's
  // acknowledgement, as the bus does.
  void PublishPaced(const std::string& topic, const void* bytes, int size, int window) {
    {
      std::unique_lock lock(m_mutex);
      m_changed.wait(lock, [&] { return m_inFlight == 0 || (m_inFlight + 1) * size <= window; });
      ++m_inFlight;
    }
    Publish(topic, bytes, size);
  }

  void Publish(const std::string& topic, const void* bytes, int size) {
    if (mosquitto_publish(m_mosq, nullptr, topic.c_str(), size, bytes, 1, false) !=
        MOSQ_ERR_SUCCESS) {
      Die("raw publish");
    }
  }

  // Blocks until `Signal` was called since the last wait.
  void Wait() {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_signalled; });
    m_signalled = false;
  }
  void Signal() {
    std::lock_guard lock(m_mutex);
    m_signalled = true;
    m_changed.notify_all();
  }

 private:
  mosquitto* m_mosq;
  Reaction m_reaction;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_subscribed = false;
  bool m_signalled = false;
  int m_inFlight = 0;
};

// Echoes raw/ping to raw/pong from its network thread; an empty message ends
// it.
int RawEcho(int port) {
  RawClient echo(port, "raw/ping", [](RawClient& client, const mosquitto_message& message) {
    client.Publish("raw/pong", message.payload, message.payloadlen);
    if (message.payloadlen == 0)
      client.Signal();
  });
  echo.Wait();
  return 0;
}

std::vector<double> RawRoundTrips(RawClient& pinger, int count) {
  const std::string ping(kSmallBytes, 'p');
  std::vector<double> micros;
  for (int i = 0; i < kWarmUp + count; ++i) {
    const auto start = Clock::now();
    pinger.Publish("raw/ping", ping.data(), kSmallBytes);
    pinger.Wait();
    if (i >= kWarmUp)
      micros.push_back(duration<double, std::micro>(Clock::now() - start).count());
  }
  return micros;
}

double RawThroughput(int port, int count) {
  int received = 0;
  RawClient sink(port, "raw/blocks", [&](RawClient& client, const mosquitto_message& message) {
    if (message.payloadlen != kBlockBytes)
      Die("a raw block of the wrong size");
    if (++received == count)
      client.Signal();
  });
  const std::string block(kBlockBytes, 'b');
  ChildProcess source = ChildProcess::Fork([&] {
    RawClient client(port, "raw/go", [](RawClient& c, const mosquitto_message&) { c.Signal(); });
    client.Wait();
    for (int i = 0; i < count; ++i) {
      client.PublishPaced("raw/blocks", block.data(), kBlockBytes, KELBUS_SEND_WINDOW_BYTES);
    }
    client.Wait();  // the sink's "done"
    return 0;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto start = Clock::now();
  sink.Publish("raw/go", "go", 2);
  sink.Wait();
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
  TestBroker broker;
  if (!broker.Running())
    Die(broker.Error());
  broker.ExportUrl("bench");
  mosquitto_lib_init();

  // Round trips: both echoes stay up, and blocks of the two alternate.
  std::vector<double> busTrips, rawTrips;
  {
    const int port = broker.Port();
    ChildProcess busEcho = ChildProcess::Fork(&BusEcho);
    ChildProcess rawEcho = ChildProcess::Fork([port] { return RawEcho(port); });
    int answered = -1;
    const int pinger =
        JoinBus("pinger", [&](const KelMsgStringType&, const char*) { answered = 0; });
    RawClient rawPinger(port, "raw/pong",
                        [](RawClient& client, const mosquitto_message&) { client.Signal(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (int block = 0; block < rounds * kBlocksPerRound; ++block) {
      const auto bus = BusRoundTrips(pinger, answered, roundTrips / kBlocksPerRound);
      const auto raw = RawRoundTrips(rawPinger, roundTrips / kBlocksPerRound);
      busTrips.insert(busTrips.end(), bus.begin(), bus.end());
      rawTrips.insert(rawTrips.end(), raw.begin(), raw.end());
    }
    SendBytes(pinger, "echo", "");
    rawPinger.Publish("raw/ping", "", 0);
    busEcho.ExitCode(std::chrono::seconds(10));
    rawEcho.ExitCode(std::chrono::seconds(10));
    CloseCommunicator(pinger);
  }
  // Throughput: bus and raw rounds back to back, compared pair by pair.
  std::vector<double> busRates, rawRates, rateRatios;
  for (int round = 0; round < rounds * kThroughputPairsPerRound; ++round) {
    busRates.push_back(BusThroughput(blocks));
    rawRates.push_back(RawThroughput(broker.Port(), blocks));
    rateRatios.push_back(busRates.back() / rawRates.back());
  }

  const double busMedian = Median(busTrips), rawMedian = Median(rawTrips);
  const double busRate = Median(busRates), rawRate = Median(rawRates);
  const double mib = kBlockBytes / (1024.0 * 1024.0);
  std::printf("KelBus benchmark: %d rounds, mosquitto on 127.0.0.1:%d\n\n", rounds, broker.Port());
  std::printf("round trip, %d-byte message (%d per round)\n", kSmallBytes, roundTrips);
  std::printf("  KelMsgBBAPI      median %8.1f us   p90 %8.1f us\n", busMedian,
              Percentile(busTrips, 0.9));
  std::printf("  raw libmosquitto median %8.1f us   p90 %8.1f us\n", rawMedian,
              Percentile(rawTrips, 0.9));
  std::printf("  ratio %.2fx (goal: at most 1.25x)\n\n", busMedian / rawMedian);
  std::printf("throughput, 64 KiB messages (%d per pair, median of pairs)\n", blocks);
  std::printf("  KelMsgBBAPI      %8.0f msg/s  %7.1f MiB/s\n", busRate, busRate * mib);
  std::printf("  raw libmosquitto %8.0f msg/s  %7.1f MiB/s\n", rawRate, rawRate * mib);
  std::printf("  ratio %.0f %%, median of %zu back-to-back pairs %.0f %% (goal: at least 85 %%)\n",
              100.0 * busRate / rawRate, rateRatios.size(), 100.0 * Median(rateRatios));
  return 0;
}
