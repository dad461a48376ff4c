// A receiver that stops consuming: real `kelmsg serve`, `push` and `pull`
// processes on a private broker, the receiving process stopped (SIGSTOP)
// half-way through a large file and continued after a while.  The file must
// arrive byte-identical; the broker and the receiving process may grow by a
// bounded amount only, and the sender must not grow while it waits.
//
//   kelmsg_stalled_receiver_bench [--file-size BYTES] [--stall-seconds N]
//
// Resident sizes are sampled from /proc every few milliseconds; a process
// that is still alive at the end also reports its exact peak (VmHWM).
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchArguments.h"
#include "BenchSourceFile.h"
#include "BenchTable.h"
#include "ChildProcess.h"
#include "TestBroker.h"

namespace fs = std::filesystem;

namespace {

constexpr double kMiB = 1024.0 * 1024.0;
constexpr double kGrowthLimit = 64 * kMiB;
constexpr auto kSampleInterval = std::chrono::milliseconds(5);
constexpr auto kServerStart = std::chrono::seconds(10);

struct Settings {
  std::uintmax_t fileSize = 2048ull * 1024 * 1024;
  std::uintmax_t stallSeconds = 60;
};

[[noreturn]] void Die(const std::string& why) {
  std::fprintf(stderr, "kelmsg_stalled_receiver_bench: %s\n", why.c_str());
  std::exit(1);
}

// A field of /proc/PID/status in bytes ("VmRSS", "VmHWM"), or nothing once
// the process is gone.
std::optional<double> StatusBytes(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with(field + ":"))
      return std::strtod(line.c_str() + field.size() + 1, nullptr) * 1024.0;
  }
  return std::nullopt;
}

// The highest resident size of each watched process since it was watched or
// last reset, sampled on a thread of its own.
class ResidentSampler {
 public:
  ResidentSampler() : m_thread([this] { Run(); }) {}
  ~ResidentSampler() {
    m_stop = true;
    m_thread.join();
  }
  ResidentSampler(const ResidentSampler&) = delete;
  ResidentSampler& operator=(const ResidentSampler&) = delete;

  // Watches `pid` from now on: the kernel's peak starts anew as well, so
  // that a broker's earlier runs do not count.
  void Watch(pid_t pid) {
    std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5";
    std::lock_guard lock(m_mutex);
    m_peaks[pid] = StatusBytes(pid, "VmRSS").value_or(0);
  }
  double Peak(pid_t pid) {
    std::lock_guard lock(m_mutex);
    double peak = m_peaks[pid];
    if (const auto exact = StatusBytes(pid, "VmHWM"))
      peak = std::max(peak, *exact);
    return peak;
  }
  // The sampled peak only: the kernel's exact one cannot be reset, nor read
  // once the process has gone.
  double SampledPeak(pid_t pid) {
    std::lock_guard lock(m_mutex);
    return m_peaks[pid];
  }
  // Starts the sampled peak anew from the present size.
  void Reset(pid_t pid) {
    std::lock_guard lock(m_mutex);
    m_peaks[pid] = StatusBytes(pid, "VmRSS").value_or(0);
  }

 private:
  void Run() {
    while (!m_stop) {
      {
        std::lock_guard lock(m_mutex);
        for (auto& [pid, peak] : m_peaks) {
          if (const auto now = StatusBytes(pid, "VmRSS"))
            peak = std::max(peak, *now);
        }
      }
      std::this_thread::sleep_for(kSampleInterval);
    }
  }

  std::mutex m_mutex;
  std::map<pid_t, double> m_peaks;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

double ResidentBytes(pid_t pid) {
  return StatusBytes(pid, "VmRSS").value_or(0);
}

// Bytes in the regular files of `directory` except `leaveOut`: the
// receiver's file, whatever it is called while it grows.
std::uintmax_t BytesArrived(const fs::path& directory, const std::string& leaveOut) {
  std::uintmax_t total = 0;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error); !error && entry != fs::directory_iterator();
       entry.increment(error)) {
    std::error_code goneMeanwhile;
    if (entry->path().filename() != leaveOut && entry->is_regular_file(goneMeanwhile))
      total += entry->file_size(goneMeanwhile);
  }
  return total;
}

// The last line of a client's output: its verdict, after progress lines
// that end in carriage returns.
std::string LastLine(const fs::path& log) {
  std::ifstream text(log);
  std::string line, last;
  while (std::getline(text, line)) {
    if (const std::size_t carriage = line.find_last_of('\r'); carriage != std::string::npos)
      line.erase(0, carriage + 1);
    if (!line.empty())
      last = line;
  }
  return last;
}

bool SameBytes(const fs::path& one, const fs::path& other) {
  return ChildProcess::Exec({"/usr/bin/cmp", "-s", one.string(), other.string()})
             .ExitCode(std::chrono::minutes(5)) == 0;
}

// `kelmsg serve` in `directory`, once it says it serves.
// Each run serves under a name of its own: a server's name stays held for
// the departure delay after it has gone.
ChildProcess StartServer(const fs::path& directory, const std::string& name) {
  const fs::path log = directory.parent_path() / "serve.log";
  fs::remove(log);  // the line of an earlier server would pass for this one's
  ChildProcess server =
      ChildProcess::Exec({KELMSG_TOOL, "serve", name, "--dir", directory.string()}, log);
  const auto deadline = std::chrono::steady_clock::now() + kServerStart;
  while (std::chrono::steady_clock::now() < deadline) {
    std::ifstream text(log);
    std::string line;
    if (std::getline(text, line) && line.starts_with("serving files"))
      return server;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  Die("kelmsg serve did not start; see " + log.string());
}

enum class Direction { kPush, kPull };

// Figures of one stalled transfer, in bytes and seconds.
struct StallFigures {
  bool identical = false;
  std::string failure;  // why the client failed, empty when it exited 0
  double seconds = 0;
  double brokerBefore = 0, brokerPeak = 0;
  double receiverBefore = 0, receiverPeak = 0;
  // The sender fills its window in the first moments of the stop; from then
  // on it must not grow.
  double senderSettled = 0, senderPeakWhileStopped = 0;
};

// The directories of one run: the server's and the client's, the source
// file linked into both, so that either side can send it.
struct Scene {
  fs::path server, client;
};

// How long into the stop the sender's window is taken to be full.
std::chrono::milliseconds SettleTime(const Settings& settings) {
  return std::min<std::chrono::milliseconds>(std::chrono::seconds(5),
                                             std::chrono::seconds(settings.stallSeconds) / 4);
}

class StalledTransfer {
 public:
  StalledTransfer(const Settings& settings, const TestBroker& broker, const Scene& scene)
      : m_settings(settings), m_broker(broker), m_scene(scene) {}

  StallFigures Run(Direction direction) {
    const bool push = direction == Direction::kPush;
    const std::string name = push ? "push-server" : "pull-server";
    ChildProcess server = StartServer(m_scene.server, name);
    m_sampler.Watch(server.Pid());
    m_sampler.Watch(m_broker.Pid());
    StallFigures figures;
    figures.brokerBefore = ResidentBytes(m_broker.Pid());
    const double start = Now();
    ChildProcess client = StartClient(push ? "push" : "pull", name);
    m_sampler.Watch(client.Pid());
    ChildProcess& receiver = push ? server : client;
    ChildProcess& sender = push ? client : server;
    // The client's own start is the receiver's baseline when it pulls: a
    // pull of a small file first gives the size of a pulling process.
    figures.receiverBefore = push ? ResidentBytes(server.Pid()) : m_pullerBaseline;

    const fs::path& arrivals = push ? m_scene.server : m_scene.client;
    while (BytesArrived(arrivals, "source.dat") < m_settings.fileSize / 2 && client.Running())
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    receiver.Signal(SIGSTOP);
    const auto stall = std::chrono::seconds(m_settings.stallSeconds);
    std::this_thread::sleep_for(SettleTime(m_settings));
    figures.senderSettled = ResidentBytes(sender.Pid());
    m_sampler.Reset(sender.Pid());
    std::this_thread::sleep_for(stall - SettleTime(m_settings));
    figures.senderPeakWhileStopped = m_sampler.SampledPeak(sender.Pid());
    receiver.Signal(SIGCONT);

    const std::optional<int> code = client.ExitCode(std::chrono::minutes(10));
    figures.seconds = Now() - start;
    figures.brokerPeak = m_sampler.Peak(m_broker.Pid());
    figures.receiverPeak = m_sampler.Peak(receiver.Pid());
    if (code != 0)
      figures.failure = LastLine(ClientLog(push ? "push" : "pull"));
    const fs::path target = arrivals / "target.dat";
    figures.identical = SameBytes(m_scene.client / "source.dat", target);
    fs::remove(target);
    return figures;
  }

  // The peak resident size of a pull of a small file from the server.
  void MeasurePullerBaseline() {
    if (!WriteBenchSourceFile(m_scene.server / "small.dat", 1 << 20))
      Die("cannot write the small file to send");
    ChildProcess server = StartServer(m_scene.server, "small-server");
    ChildProcess client = StartClient("pull", "small-server", "small.dat");
    m_sampler.Watch(client.Pid());
    client.ExitCode(std::chrono::minutes(1));
    m_pullerBaseline = m_sampler.SampledPeak(client.Pid());
    fs::remove(m_scene.server / "small.dat");
    fs::remove(m_scene.client / "target.dat");
  }

 private:
  static double Now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  fs::path ClientLog(const std::string& command) const {
    return m_scene.client.parent_path() / (command + ".log");
  }

  // The client waits longer than the stall for the next chunk or the receipt.
  ChildProcess StartClient(const char* command, const std::string& server,
                           const std::string& source = "source.dat") {
    const std::string patience = std::to_string(m_settings.stallSeconds + 60);
    const fs::path log = ClientLog(command);
    return ChildProcess::Exec({KELMSG_TOOL, command, server, source, "target.dat", "--base",
                               m_scene.client.string(), "--timeout", patience},
                              log);
  }

  const Settings& m_settings;
  const TestBroker& m_broker;
  const Scene& m_scene;
  ResidentSampler m_sampler;
  double m_pullerBaseline = 0;
};

void PrintStallRows(const Settings& settings, const char* way, const StallFigures& figures) {
  const std::string what = std::string("stalled receiver: ") + way + " " +
                           std::to_string(settings.fileSize >> 20) + " MiB, receiver stopped " +
                           std::to_string(settings.stallSeconds) + " s, the bus's defaults (" +
                           (figures.identical ? "byte-identical" : "DIFFERENT") +
                           (figures.failure.empty() ? "" : ", " + figures.failure) + ")";
  PrintBenchRow({what + ": time", figures.seconds, "the stop", double(settings.stallSeconds),
                 BenchUnit::kSeconds});
  PrintBenchRow({what + ": broker peak RSS growth", figures.brokerPeak - figures.brokerBefore,
                 "broker RSS before", figures.brokerBefore, BenchUnit::kBytes,
                 BenchGoal::kFigureBelow, kGrowthLimit});
  PrintBenchRow({what + ": receiving process peak RSS growth",
                 figures.receiverPeak - figures.receiverBefore,
                 std::string(way) == "push" ? "its RSS before" : "peak RSS of a 1 MiB pull",
                 figures.receiverBefore, BenchUnit::kBytes, BenchGoal::kFigureBelow, kGrowthLimit});
  PrintBenchRow({what + ": sender peak RSS while the receiver is stopped",
                 figures.senderPeakWhileStopped,
                 "sender RSS " + std::to_string(SettleTime(settings).count()) + " ms into the stop",
                 figures.senderSettled, BenchUnit::kBytes, BenchGoal::kAtMost, 1.05});
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  ReadBenchArguments(argc, argv, "kelmsg_stalled_receiver_bench",
                     {{"--file-size", "BYTES", &settings.fileSize},
                      {"--stall-seconds", "N", &settings.stallSeconds}});
  const TestBroker broker;
  if (!broker.Running())
    Die(broker.Error());
  broker.ExportUrl("bench");
  // The stop must stay within what the bus tolerates by default, not within
  // the instant departures that tests ask for.
  unsetenv("KELBUS_DEPARTURE_DELAY_SECONDS");

  const fs::path directory =
      fs::temp_directory_path() / ("kelmsg-stall-bench-" + std::to_string(getpid()));
  const Scene scene{directory / "server", directory / "client"};
  fs::create_directories(scene.server);
  fs::create_directories(scene.client);
  if (!WriteBenchSourceFile(scene.client / "source.dat", settings.fileSize))
    Die("cannot write the file to send in " + scene.client.string());
  fs::create_hard_link(scene.client / "source.dat", scene.server / "source.dat");
  sync();

  StalledTransfer transfer(settings, broker, scene);
  transfer.MeasurePullerBaseline();
  PrintStallRows(settings, "push", transfer.Run(Direction::kPush));
  PrintStallRows(settings, "pull", transfer.Run(Direction::kPull));
  fs::remove_all(directory);
  return 0;
}
