// In-process costs, each beside a baseline run in the same process:
//   - Stream and Unstream of each message type, in bytes per second of
//     payload, against memcpy of a payload of the same size;
//   - dispatch of one received envelope through the registry, against the
//     same clone, Unstream and handler call made directly;
//   - cow_Btree insertion, lookup and copy against std::map.
//
// Google Benchmark does the timing; its own output is replaced by rows of the
// project's benchmark table.  Flags of Google Benchmark (--benchmark_filter,
// --benchmark_min_time) are accepted.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMaps.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include "BenchTable.h"

namespace {

constexpr int kChunkBytes = 64 * 1024;
constexpr int kMapEntries = 10000;
constexpr char kIdentifier[] = "solver";

// --- Messages under test, each filled as a sender fills it ---------------

struct StringSample {
  std::vector<char> data = std::vector<char>(kChunkBytes, 'x');
  KelMsgStringType message;
  StringSample() { message.SetData(data.data(), kChunkBytes); }
};

struct AnalysisSample {
  KelMsgAnalysisMessageType message{
      KelString(("<Analysis>" + std::string(kChunkBytes - 21, 'x') + "</Analysis>").c_str())};
};

struct ControlSample {
  std::shared_ptr<KelMsgProcessControlType> message =
      KelMsgProcessControlTypeFactory::CreateSoftKillMsg();
};

struct ChunkSample {
  std::vector<char> data = std::vector<char>(kChunkBytes, 'c');
  KelMsgFileTransferType message;
  ChunkSample() {
    KelMsgFileTransferData& record = message.Data();
    record.m_dataType = KelMsgFileTransferData::FILE_TRANSFER_CHUNK;
    record.m_chunkId = 1;
    record.m_chunkSize = kChunkBytes;
    record.m_chunkData = data.data();
  }
};

const KelMsgBBMessage& Sent(const StringSample& sample) {
  return sample.message;
}
const KelMsgBBMessage& Sent(const AnalysisSample& sample) {
  return sample.message;
}
const KelMsgBBMessage& Sent(const ControlSample& sample) {
  return *sample.message;
}
const KelMsgBBMessage& Sent(const ChunkSample& sample) {
  return sample.message;
}

std::vector<char> Payload(const KelMsgBBMessage& message) {
  std::vector<char> bytes(static_cast<std::size_t>(message.RequiredBufferSize()));
  message.Stream(bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

template <class Sample>
void BM_Stream(benchmark::State& state) {
  const Sample sample;
  const KelMsgBBMessage& message = Sent(sample);
  std::vector<char> buffer(static_cast<std::size_t>(message.RequiredBufferSize()));
  for (auto _ : state) {
    message.Stream(buffer.data(), static_cast<int>(buffer.size()));
    benchmark::ClobberMemory();
  }
  state.counters["payload"] = static_cast<double>(buffer.size());
}

// As the registry does on receipt: a fresh clone takes the payload in.
template <class Sample>
void BM_Unstream(benchmark::State& state) {
  const Sample sample;
  const std::vector<char> payload = Payload(Sent(sample));
  for (auto _ : state) {
    const std::unique_ptr<KelMsgBBMessage> received(Sent(sample).Clone());
    received->Unstream(payload.data(), static_cast<int>(payload.size()));
    benchmark::DoNotOptimize(received.get());
  }
  state.counters["payload"] = static_cast<double>(payload.size());
}

void BM_Memcpy(benchmark::State& state, std::size_t size) {
  const std::vector<char> source(size, 's');
  std::vector<char> target(size);
  for (auto _ : state) {
    std::memcpy(target.data(), source.data(), size);
    benchmark::ClobberMemory();
  }
}

// --- Dispatch --------------------------------------------------------------

class CountingHandler : public KelMsgBBMessageHandler {
 public:
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_count += msg.RequiredBufferSize() + (id[0] != '\0');
  }
  std::int64_t m_count = 0;
};

// A received 16-byte raw string in its envelope.
std::vector<char> SmallEnvelope() {
  const std::int32_t n = sizeof kIdentifier - 1;
  std::vector<char> envelope(sizeof n + n + 16, 'p');
  std::memcpy(envelope.data(), &n, sizeof n);
  std::memcpy(envelope.data() + sizeof n, kIdentifier, n);
  return envelope;
}

void BM_DispatchThroughRegistry(benchmark::State& state) {
  // Owns what is adopted below and deletes it when the benchmark ends.
  KelMsgBBCallbackManager registry;
  auto* handler = new CountingHandler;
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType, handler);
  const std::vector<char> envelope = SmallEnvelope();
  for (auto _ : state) {
    KelMsgBBCallbackManager::HandleMessage("KelMsgStringType", envelope.data(),
                                           static_cast<int>(envelope.size()));
  }
  benchmark::DoNotOptimize(handler->m_count);
}

// The registry's work without the registry: clone, identifier copy, Unstream
// and handler call, written out by hand.
void BM_DispatchByHand(benchmark::State& state) {
  const KelMsgStringType prototype;
  CountingHandler handler;
  const std::vector<char> envelope = SmallEnvelope();
  for (auto _ : state) {
    std::int32_t n = 0;
    std::memcpy(&n, envelope.data(), sizeof n);
    const std::unique_ptr<KelMsgBBMessage> received(prototype.Clone());
    const std::string id(envelope.data() + sizeof n, static_cast<std::size_t>(n));
    received->Unstream(envelope.data() + sizeof n + n,
                       static_cast<int>(envelope.size() - sizeof n - n));
    handler.HandleMessage(*received, id.c_str());
  }
  benchmark::DoNotOptimize(handler.m_count);
}

// --- Maps ------------------------------------------------------------------

using CowMap = cow_Btree<int, KelMsgBBMessage*>;
using StdMap = std::map<int, KelMsgBBMessage*>;

KelMsgBBMessage* const kValue = nullptr;

const std::vector<int>& ShuffledKeys() {
  static const std::vector<int> keys = [] {
    std::vector<int> shuffled(kMapEntries);
    for (int i = 0; i < kMapEntries; ++i)
      shuffled[static_cast<std::size_t>(i)] = i * 7;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(42));
    return shuffled;
  }();
  return keys;
}

void Insert(CowMap& map, int key) {
  map.InsertUnlessMember(key, kValue);
}
void Insert(StdMap& map, int key) {
  map.emplace(key, kValue);
}
bool Contains(const CowMap& map, int key) {
  return map.ConstFind(key) != nullptr;
}
bool Contains(const StdMap& map, int key) {
  return map.find(key) != map.end();
}

template <class Map>
Map Filled() {
  Map map;
  for (int key : ShuffledKeys())
    Insert(map, key);
  return map;
}

template <class Map>
void BM_MapInsert(benchmark::State& state) {
  for (auto _ : state) {
    Map map = Filled<Map>();
    benchmark::DoNotOptimize(&map);
  }
}

template <class Map>
void BM_MapLookup(benchmark::State& state) {
  const Map map = Filled<Map>();
  for (auto _ : state) {
    int found = 0;
    for (int key : ShuffledKeys())
      found += Contains(map, key);
    benchmark::DoNotOptimize(found);
  }
}

template <class Map>
void BM_MapCopy(benchmark::State& state) {
  const Map map = Filled<Map>();
  for (auto _ : state) {
    Map copy(map);
    benchmark::DoNotOptimize(&copy);
  }
}

// --- The table -------------------------------------------------------------

// Seconds per iteration of every benchmark that ran, by name, and the
// payload size that the serialising ones recorded.
class CollectingReporter : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override { return true; }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0)
        continue;
      const std::string name = run.benchmark_name();
      m_seconds[name] = run.real_accumulated_time / static_cast<double>(run.iterations);
      const auto payload = run.counters.find("payload");
      if (payload != run.counters.end())
        m_payload[name] = payload->second.value;
    }
  }
  bool Has(const std::string& name) const { return m_seconds.count(name) != 0; }
  double Seconds(const std::string& name) const { return m_seconds.at(name); }
  double Payload(const std::string& name) const { return m_payload.at(name); }

 private:
  std::map<std::string, double> m_seconds;
  std::map<std::string, double> m_payload;
};

struct MessageKind {
  const char* label;
  const char* stream;
  const char* unstream;
};

constexpr MessageKind kKinds[] = {
    {"KelMsgStringType 64 KiB", "Stream<StringSample>", "Unstream<StringSample>"},
    {"KelMsgAnalysisMessageType 64 KiB", "Stream<AnalysisSample>", "Unstream<AnalysisSample>"},
    {"KelMsgProcessControlType soft kill", "Stream<ControlSample>", "Unstream<ControlSample>"},
    {"KelMsgFileTransferType 64 KiB chunk", "Stream<ChunkSample>", "Unstream<ChunkSample>"},
};

void RegisterBenchmarks(const std::vector<std::int64_t>& payloadSizes) {
  benchmark::RegisterBenchmark("Stream<StringSample>", BM_Stream<StringSample>);
  benchmark::RegisterBenchmark("Unstream<StringSample>", BM_Unstream<StringSample>);
  benchmark::RegisterBenchmark("Stream<AnalysisSample>", BM_Stream<AnalysisSample>);
  benchmark::RegisterBenchmark("Unstream<AnalysisSample>", BM_Unstream<AnalysisSample>);
  benchmark::RegisterBenchmark("Stream<ControlSample>", BM_Stream<ControlSample>);
  benchmark::RegisterBenchmark("Unstream<ControlSample>", BM_Unstream<ControlSample>);
  benchmark::RegisterBenchmark("Stream<ChunkSample>", BM_Stream<ChunkSample>);
  benchmark::RegisterBenchmark("Unstream<ChunkSample>", BM_Unstream<ChunkSample>);
  for (std::int64_t size : payloadSizes) {
    benchmark::RegisterBenchmark(("Memcpy/" + std::to_string(size)).c_str(), BM_Memcpy,
                                 static_cast<std::size_t>(size));
  }
  benchmark::RegisterBenchmark("DispatchThroughRegistry", BM_DispatchThroughRegistry);
  benchmark::RegisterBenchmark("DispatchByHand", BM_DispatchByHand);
  benchmark::RegisterBenchmark("MapInsert<cow>", BM_MapInsert<CowMap>);
  benchmark::RegisterBenchmark("MapInsert<std>", BM_MapInsert<StdMap>);
  benchmark::RegisterBenchmark("MapLookup<cow>", BM_MapLookup<CowMap>);
  benchmark::RegisterBenchmark("MapLookup<std>", BM_MapLookup<StdMap>);
  benchmark::RegisterBenchmark("MapCopy<cow>", BM_MapCopy<CowMap>);
  benchmark::RegisterBenchmark("MapCopy<std>", BM_MapCopy<StdMap>);
}

// One memcpy baseline per distinct payload size.
std::vector<std::int64_t> PayloadSizes() {
  std::vector<std::int64_t> sizes = {
      static_cast<std::int64_t>(Payload(Sent(StringSample())).size()),
      static_cast<std::int64_t>(Payload(Sent(AnalysisSample())).size()),
      static_cast<std::int64_t>(Payload(Sent(ControlSample())).size()),
      static_cast<std::int64_t>(Payload(Sent(ChunkSample())).size())};
  std::sort(sizes.begin(), sizes.end());
  sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
  return sizes;
}

void PrintSerialisingRows(const CollectingReporter& results) {
  for (const MessageKind& kind : kKinds) {
    for (const auto& [operation, name] :
         {std::pair{"Stream", kind.stream}, std::pair{"Unstream", kind.unstream}}) {
      if (!results.Has(name))
        continue;
      const double payload = results.Payload(name);
      const std::string memcpy = "Memcpy/" + std::to_string(static_cast<std::int64_t>(payload));
      if (!results.Has(memcpy))
        continue;
      PrintBenchRow({std::string(operation) + " " + kind.label, payload / results.Seconds(name),
                     "memcpy of the same payload", payload / results.Seconds(memcpy),
                     BenchUnit::kBytesPerSecond});
    }
  }
}

void PrintPair(const CollectingReporter& results, const std::string& what, const std::string& name,
               const std::string& baseline, const std::string& baselineName, double perIteration) {
  if (!results.Has(name) || !results.Has(baselineName))
    return;
  PrintBenchRow({what, results.Seconds(name) / perIteration, baseline,
                 results.Seconds(baselineName) / perIteration, BenchUnit::kSeconds});
}

void PrintRows(const CollectingReporter& results) {
  PrintSerialisingRows(results);
  PrintPair(results, "dispatch of one 16-byte envelope (per message)", "DispatchThroughRegistry",
            "the same work by hand", "DispatchByHand", 1);
  PrintPair(results, "cow_Btree insert, 10000 int keys (per insert)", "MapInsert<cow>", "std::map",
            "MapInsert<std>", kMapEntries);
  PrintPair(results, "cow_Btree lookup, 10000 int keys (per lookup)", "MapLookup<cow>", "std::map",
            "MapLookup<std>", kMapEntries);
  PrintPair(results, "cow_Btree copy of 10000 entries", "MapCopy<cow>", "std::map", "MapCopy<std>",
            1);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RegisterBenchmarks(PayloadSizes());
  CollectingReporter results;
  benchmark::RunSpecifiedBenchmarks(&results);
  PrintRows(results);
  return 0;
}
