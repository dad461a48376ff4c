// Costs through the bus, between real processes on a private broker, each
// beside its baseline measured in the same run with a plain libmosquitto
// client (RawMqttClient, built like the bus's connections) or with cp:
//   - round trip of a 16-byte message;
//   - throughput of 64 KiB messages;
//   - a file pushed with SendFile and ISendFile and pulled with ReceiveFile,
//     against the same bytes published in 64 KiB messages and against cp,
//     with the peak resident size of both processes.
//
//   kelmsg_bus_bench [--file-size BYTES] [--round-trips N] [--messages N] [--repeat N]
//
// Every participant is a forked child; this process only starts the broker,
// forks, and reads what each child reports through a pipe.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include "BenchTable.h"
#include "ChildProcess.h"
#include "RawMqttClient.h"
#include "TestBroker.h"

namespace fs = std::filesystem;

namespace {

constexpr int kSmallBytes = 16;
constexpr int kLargeBytes = 64 * 1024;
constexpr auto kChildLimit = std::chrono::minutes(5);

struct Settings {
  std::uintmax_t fileSize = 1024ull * 1024 * 1024;
  int roundTrips = 2000;
  int messages = 2048;
  // Runs of every measurement; the best one counts, since the machine may be
  // shared and the best run is the one least disturbed.
  int repeat = 3;
};

double Now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double PeakResidentBytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) * 1024.0;
}

// Lines from one child to this process.
class ReportPipe {
 public:
  ReportPipe() {
    if (pipe(m_ends) != 0)
      std::abort();
  }
  ~ReportPipe() {
    close(m_ends[0]);
    close(m_ends[1]);
  }
  ReportPipe(const ReportPipe&) = delete;
  ReportPipe& operator=(const ReportPipe&) = delete;

  // In the child.
  void Send(const std::string& line) const {
    const std::string text = line + "\n";
    if (write(m_ends[1], text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      std::abort();
  }
  // In this process: the next line, or "" when none comes in time.
  std::string Receive() {
    const auto deadline = std::chrono::steady_clock::now() + kChildLimit;
    while (m_buffer.find('\n') == std::string::npos) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd ready{m_ends[0], POLLIN, 0};
      if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) != 1)
        return "";
      char bytes[256];
      const ssize_t count = read(m_ends[0], bytes, sizeof bytes);
      if (count <= 0)
        return "";
      m_buffer.append(bytes, static_cast<std::size_t>(count));
    }
    const std::size_t end = m_buffer.find('\n');
    std::string line = m_buffer.substr(0, end);
    m_buffer.erase(0, end + 1);
    return line;
  }
  // The numbers of the next line, after its first word.
  std::vector<double> ReceiveNumbers() {
    std::istringstream line(Receive());
    std::string word;
    line >> word;
    std::vector<double> numbers;
    for (double number; line >> number;)
      numbers.push_back(number);
    return numbers;
  }

 private:
  int m_ends[2];
  std::string m_buffer;
};

std::string Line(const char* word, std::initializer_list<double> numbers) {
  std::ostringstream line;
  line.precision(17);
  line << word;
  for (double number : numbers)
    line << ' ' << number;
  return line.str();
}

// --- Participants through the library ---------------------------------------

int g_communicator = 0;

// Joins as `application` with the same message identifier; false if the bus
// refused.
bool Join(const char* application) {
  if (KelMsgBBAPI::RegisterCommunicator(application, g_communicator) != KELBUS_OK)
    return false;
  if (KelMsgBBAPI::DeclareApplicationId(g_communicator, application, false) != KELBUS_OK)
    return false;
  KelMsgBBCallbackManager::SetMessageID(application);
  return KelMsgBBAPI::EnableReceiveHandling(g_communicator, application) == KELBUS_OK;
}

void SendText(const char* target, const std::string& text) {
  KelMsgStringType message;
  message.SetData(text.data(), static_cast<int>(text.size()));
  KelMsgBBAPI::SendRequest(g_communicator, target, message);
}

// Calls `react` for every raw string message.
class StringHandler : public KelMsgBBMessageHandler {
 public:
  explicit StringHandler(std::function<void(const KelMsgStringType&, const char*)> react)
      : m_react(std::move(react)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    m_react(static_cast<const KelMsgStringType&>(msg), id);
  }

 private:
  std::function<void(const KelMsgStringType&, const char*)> m_react;
};

void AdoptStrings(std::function<void(const KelMsgStringType&, const char*)> react) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new KelMsgStringType,
                                                    new StringHandler(std::move(react)));
}

// Waits in the bus's loop for ever: a server stays until it is killed.
int Serve() {
  int never = -1;
  KelMsgBBAPI::WaitingLoop(g_communicator, -1, never);
  return 0;
}

int LibraryEcho(ReportPipe& report) {
  if (!Join("echo"))
    return 1;
  AdoptStrings([](const KelMsgStringType& msg, const char* id) {
    KelMsgBBAPI::SendRequest(g_communicator, id, msg);
  });
  report.Send("ready");
  return Serve();
}

int LibraryPing(ReportPipe& report, int roundTrips) {
  if (!Join("ping"))
    return 1;
  int answers = 0;
  AdoptStrings([&answers](const KelMsgStringType&, const char*) { ++answers; });
  const std::string text(kSmallBytes, 'p');
  const auto roundTrip = [&] {
    SendText("echo", text);
    KelMsgBBAPI::WaitingLoop(g_communicator, -1, answers);
  };
  for (int i = 0; i < roundTrips / 10; ++i)
    roundTrip();
  const double start = Now();
  for (int i = 0; i < roundTrips; ++i)
    roundTrip();
  report.Send(Line("rtt", {(Now() - start) / roundTrips}));
  return 0;
}

int LibrarySink(ReportPipe& report, int messages) {
  if (!Join("sink"))
    return 1;
  int received = 0;
  AdoptStrings([&received, messages](const KelMsgStringType&, const char* id) {
    if (++received == messages)
      SendText(id, "done");
  });
  report.Send("ready");
  return Serve();
}

int LibraryBlast(ReportPipe& report, int messages) {
  if (!Join("blast"))
    return 1;
  int done = 0;
  AdoptStrings([&done](const KelMsgStringType&, const char*) { ++done; });
  const std::vector<char> bytes(kLargeBytes, 'b');
  KelMsgStringType message;
  message.SetData(bytes.data(), kLargeBytes);
  const double start = Now();
  for (int i = 0; i < messages; ++i)
    KelMsgBBAPI::SendRequest(g_communicator, "sink", message);
  KelMsgBBAPI::WaitingLoop(g_communicator, -1, done);
  report.Send(Line("seconds", {Now() - start}));
  return 0;
}

// Lets the engine handle each file-transfer message, then reports the
// moment a transfer ended on this side and the peak resident size.
class ReportingTransferHandler : public KelMsgFileTransferHandler {
 public:
  ReportingTransferHandler(KelMsgFileTransfer* engine, ReportPipe* report)
      : KelMsgFileTransferHandler(engine), m_report(report) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    KelMsgFileTransferHandler::HandleMessage(msg, id);
    switch (static_cast<const KelMsgFileTransferType&>(msg).Data().m_dataType) {
      case KelMsgFileTransferData::FILE_TRANSFER_SEND_REQUEST:
      case KelMsgFileTransferData::FILE_TRANSFER_SEND_COMPLETION:
      case KelMsgFileTransferData::FILE_TRANSFER_ISEND_COMPLETION:
        m_report->Send(Line("ended", {Now(), PeakResidentBytes()}));
        break;
      default:
        break;
    }
  }

 private:
  ReportPipe* m_report;
};

// The engine of a participant in a file transfer; the registry deletes the
// handler, the engine lives as long as the process.  With `report`, the
// handler reports the end of every transfer on this side.
KelMsgFileTransfer& Engine(ReportPipe* report) {
  static KelMsgFileTransfer engine(g_communicator, nullptr, 0);
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(
      new KelMsgFileTransferType, report != nullptr ? new ReportingTransferHandler(&engine, report)
                                                    : new KelMsgFileTransferHandler(&engine));
  return engine;
}

struct FileNames {
  std::string directory;
  std::string source;
  std::string target;
};

enum class Way { kSendFile, kISendFile, kReceiveFile };

int LibraryFileServer(ReportPipe& report, const char* application) {
  if (!Join(application))
    return 1;
  Engine(&report);
  report.Send("ready");
  return Serve();
}

// Pushes (SendFile, ISendFile) to "receiver" or pulls (ReceiveFile) from
// "holder"; reports start, end and peak resident size.
int LibraryFileClient(ReportPipe& report, Way way, const FileNames& files) {
  if (!Join(way == Way::kReceiveFile ? "puller" : "pusher"))
    return 1;
  KelMsgFileTransfer& engine = Engine(nullptr);
  const char* dir = files.directory.c_str();
  const char* from = files.source.c_str();
  const char* to = files.target.c_str();
  const double start = Now();
  switch (way) {
    case Way::kSendFile:
      engine.SendFile("pusher", dir, "", from, "receiver", dir, "", to);
      break;
    case Way::kISendFile:
      engine.ISendFile("pusher", dir, "", from, "receiver", dir, "", to);
      break;
    case Way::kReceiveFile:
      engine.ReceiveFile("holder", dir, "", from, "puller", dir, "", to);
      break;
  }
  const double end = Now();
  CloseCommunicator(g_communicator);
  report.Send(Line("client", {start, end, PeakResidentBytes()}));
  return 0;
}

// --- Participants with the plain client ------------------------------------

// Counts arrivals for a thread that waits for them.
class Arrivals {
 public:
  void Add() {
    std::lock_guard lock(m_mutex);
    ++m_count;
    m_changed.notify_all();
  }
  void AwaitCount(long count) {
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [&] { return m_count >= count; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  long m_count = 0;
};

int RawEcho(ReportPipe& report, int port) {
  RawMqttClient* self = nullptr;
  RawMqttClient client(port, [&self](const std::string&, const char* bytes, int size) {
    self->Publish("raw/ping", bytes, size);
  });
  self = &client;
  if (!client.Subscribe("raw/echo"))
    return 1;
  report.Send("ready");
  pause();
  return 0;
}

int RawPing(ReportPipe& report, int port, int roundTrips) {
  Arrivals answers;
  RawMqttClient client(port, [&answers](const std::string&, const char*, int) { answers.Add(); });
  if (!client.Subscribe("raw/ping"))
    return 1;
  const std::string text(kSmallBytes, 'p');
  long sent = 0;
  const auto roundTrip = [&] {
    client.Publish("raw/echo", text.data(), kSmallBytes);
    answers.AwaitCount(++sent);
  };
  for (int i = 0; i < roundTrips / 10; ++i)
    roundTrip();
  const double start = Now();
  for (int i = 0; i < roundTrips; ++i)
    roundTrip();
  report.Send(Line("rtt", {(Now() - start) / roundTrips}));
  return 0;
}

int RawSink(ReportPipe& report, int port, int messages) {
  RawMqttClient* self = nullptr;
  int received = 0;
  RawMqttClient client(port, [&](const std::string&, const char*, int) {
    if (++received == messages)
      self->Publish("raw/blast", "done", 4);
  });
  self = &client;
  if (!client.Subscribe("raw/sink"))
    return 1;
  report.Send("ready");
  pause();
  return 0;
}

int RawBlast(ReportPipe& report, int port, int messages) {
  Arrivals done;
  RawMqttClient client(port, [&done](const std::string&, const char*, int) { done.Add(); });
  if (!client.Subscribe("raw/blast"))
    return 1;
  const std::vector<char> bytes(kLargeBytes, 'b');
  const double start = Now();
  for (int i = 0; i < messages; ++i)
    client.Publish("raw/sink", bytes.data(), kLargeBytes);
  done.AwaitCount(1);
  report.Send(Line("seconds", {Now() - start}));
  return 0;
}

// Writes what arrives to `target`; an empty message ends the file.
int RawFileReceiver(ReportPipe& report, int port, const std::string& target) {
  const int file = open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0640);
  RawMqttClient client(port, [&](const std::string&, const char* bytes, int size) {
    if (size > 0) {
      if (write(file, bytes, static_cast<std::size_t>(size)) != size)
        std::abort();
      return;
    }
    close(file);
    report.Send(Line("ended", {Now(), PeakResidentBytes()}));
  });
  if (file < 0 || !client.Subscribe("raw/file"))
    return 1;
  report.Send("ready");
  pause();
  return 0;
}

int RawFileSender(ReportPipe& report, int port, const std::string& source) {
  RawMqttClient client(port);
  const int file = open(source.c_str(), O_RDONLY);
  if (file < 0 || !client.Connected())
    return 1;
  std::vector<char> chunk(kLargeBytes);
  const double start = Now();
  for (ssize_t count; (count = read(file, chunk.data(), chunk.size())) > 0;)
    client.Publish("raw/file", chunk.data(), static_cast<int>(count));
  client.Publish("raw/file", "", 0);
  client.Flush(kChildLimit);
  close(file);
  report.Send(Line("client", {start, Now(), PeakResidentBytes()}));
  return 0;
}

// --- This process ----------------------------------------------------------

// Starts `server`, waits for its "ready", then runs `client` to its end.
// The server runs until the returned object goes.
ChildProcess ServerAndClient(ReportPipe& serverReport, const std::function<int()>& server,
                             const std::function<int()>& client) {
  ChildProcess serverProcess = ChildProcess::Fork(server);
  if (serverReport.Receive() != "ready") {
    std::fprintf(stderr, "kelmsg_bus_bench: a server did not start\n");
    std::exit(1);
  }
  ChildProcess::Fork(client).ExitCode(kChildLimit);
  return serverProcess;
}

double LibraryRoundTrip(const Settings& settings) {
  ReportPipe server;
  ReportPipe client;
  const ChildProcess echo = ServerAndClient(
      server, [&] { return LibraryEcho(server); },
      [&] { return LibraryPing(client, settings.roundTrips); });
  return client.ReceiveNumbers().at(0);
}

double RawRoundTrip(const Settings& settings, int port) {
  ReportPipe server;
  ReportPipe client;
  const ChildProcess echo = ServerAndClient(
      server, [&] { return RawEcho(server, port); },
      [&] { return RawPing(client, port, settings.roundTrips); });
  return client.ReceiveNumbers().at(0);
}

double LibraryThroughput(const Settings& settings) {
  ReportPipe server;
  ReportPipe client;
  const ChildProcess sink = ServerAndClient(
      server, [&] { return LibrarySink(server, settings.messages); },
      [&] { return LibraryBlast(client, settings.messages); });
  return static_cast<double>(settings.messages) * kLargeBytes / client.ReceiveNumbers().at(0);
}

double RawThroughput(const Settings& settings, int port) {
  ReportPipe server;
  ReportPipe client;
  const ChildProcess sink = ServerAndClient(
      server, [&] { return RawSink(server, port, settings.messages); },
      [&] { return RawBlast(client, port, settings.messages); });
  return static_cast<double>(settings.messages) * kLargeBytes / client.ReceiveNumbers().at(0);
}

struct Transfer {
  double seconds = 1e300;
  double senderPeak = 0;    // resident bytes of the process that read the file
  double receiverPeak = 0;  // resident bytes of the process that wrote it

  // The fastest time, and the highest peaks, of two runs.
  void Merge(const Transfer& run) {
    seconds = std::min(seconds, run.seconds);
    senderPeak = std::max(senderPeak, run.senderPeak);
    receiverPeak = std::max(receiverPeak, run.receiverPeak);
  }
};

// One transfer of `files`; the time runs from the client's start to the end
// of the transfer on the receiving side.
Transfer LibraryTransfer(Way way, const FileNames& files) {
  ReportPipe server;
  ReportPipe client;
  const bool pull = way == Way::kReceiveFile;
  const ChildProcess serverProcess = ServerAndClient(
      server, [&] { return LibraryFileServer(server, pull ? "holder" : "receiver"); },
      [&] { return LibraryFileClient(client, way, files); });
  const std::vector<double> clientLine = client.ReceiveNumbers();  // start, end, peak
  const std::vector<double> serverLine = server.ReceiveNumbers();  // end, peak
  if (pull)
    return {clientLine.at(1) - clientLine.at(0), serverLine.at(1), clientLine.at(2)};
  return {serverLine.at(0) - clientLine.at(0), clientLine.at(2), serverLine.at(1)};
}

Transfer RawTransfer(const FileNames& files, int port) {
  ReportPipe server;
  ReportPipe client;
  const ChildProcess receiver = ServerAndClient(
      server, [&] { return RawFileReceiver(server, port, files.directory + "/" + files.target); },
      [&] { return RawFileSender(client, port, files.directory + "/" + files.source); });
  const std::vector<double> clientLine = client.ReceiveNumbers();
  const std::vector<double> serverLine = server.ReceiveNumbers();
  return {serverLine.at(0) - clientLine.at(0), clientLine.at(2), serverLine.at(1)};
}

double CopySeconds(const FileNames& files) {
  const double start = Now();
  ChildProcess copy = ChildProcess::Exec(
      {"/bin/cp", files.directory + "/" + files.source, files.directory + "/" + files.target});
  copy.ExitCode(kChildLimit);
  return Now() - start;
}

void WriteSourceFile(const std::string& path, std::uintmax_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  std::vector<std::uint32_t> block(256 * 1024);
  std::uint32_t word = 1;
  for (std::uintmax_t written = 0; written < size; written += block.size() * 4) {
    for (std::uint32_t& value : block)
      value = word = word * 1664525u + 1013904223u;
    std::fwrite(block.data(), 1, std::min<std::uintmax_t>(block.size() * 4, size - written), file);
  }
  std::fclose(file);
}

void CheckCopy(const FileNames& files, std::uintmax_t size, const char* what) {
  if (fs::file_size(files.directory + "/" + files.target) != size)
    std::fprintf(stderr, "kelmsg_bus_bench: %s delivered a file of the wrong size\n", what);
  fs::remove(files.directory + "/" + files.target);
}

void FileTransferRows(const Settings& settings, int port) {
  const fs::path directory =
      fs::temp_directory_path() / ("kelmsg-bench-" + std::to_string(getpid()));
  fs::create_directories(directory);
  const FileNames files{directory.string(), "source.dat", "target.dat"};
  const FileNames smallFiles{directory.string(), "small.dat", "target.dat"};
  const std::uintmax_t size = settings.fileSize;
  WriteSourceFile(files.directory + "/" + files.source, size);
  WriteSourceFile(files.directory + "/" + smallFiles.source, size / 16);

  const Way ways[] = {Way::kSendFile, Way::kISendFile, Way::kReceiveFile};
  Transfer raw;
  Transfer small;
  Transfer library[3];
  double copy = 1e300;
  for (int run = 0; run < settings.repeat; ++run) {
    raw.Merge(RawTransfer(files, port));
    CheckCopy(files, size, "the raw baseline");
    copy = std::min(copy, CopySeconds(files));
    CheckCopy(files, size, "cp");
    small.Merge(LibraryTransfer(Way::kSendFile, smallFiles));
    CheckCopy(smallFiles, size / 16, "SendFile");
    for (int i = 0; i < 3; ++i) {
      library[i].Merge(LibraryTransfer(ways[i], files));
      CheckCopy(files, size, "the library");
    }
  }

  const std::string mib = std::to_string(size >> 20) + " MiB";
  const double bytes = static_cast<double>(size);
  const char* names[] = {"SendFile", "ISendFile", "ReceiveFile"};
  for (int i = 0; i < 3; ++i) {
    const std::string what = std::string(names[i]) + " " + mib;
    const double figure = bytes / library[i].seconds;
    PrintBenchRow({what, figure, "raw publish/subscribe", bytes / raw.seconds,
                   BenchUnit::kBytesPerSecond, BenchGoal::kAtLeast, 0.80});
    PrintBenchRow({what, figure, "cp", bytes / copy, BenchUnit::kBytesPerSecond});
    PrintBenchRow({what + ": peak RSS, reading side", library[i].senderPeak, "raw publisher",
                   raw.senderPeak, BenchUnit::kBytes});
    PrintBenchRow({what + ": peak RSS, writing side", library[i].receiverPeak, "raw subscriber",
                   raw.receiverPeak, BenchUnit::kBytes});
    if (ways[i] == Way::kSendFile) {
      PrintBenchRow({what + ": sender peak RSS", library[i].senderPeak,
                     "the same for a sixteenth of the size", small.senderPeak, BenchUnit::kBytes,
                     BenchGoal::kAtMost, 1.25});
    }
  }
  fs::remove_all(directory);
}

Settings Parse(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--file-size") {
      settings.fileSize = std::strtoull(argv[i + 1], nullptr, 10);
    } else if (flag == "--round-trips") {
      settings.roundTrips = std::atoi(argv[i + 1]);
    } else if (flag == "--messages") {
      settings.messages = std::atoi(argv[i + 1]);
    } else if (flag == "--repeat") {
      settings.repeat = std::max(1, std::atoi(argv[i + 1]));
    } else {
      std::fprintf(stderr,
                   "usage: kelmsg_bus_bench [--file-size BYTES] [--round-trips N] "
                   "[--messages N] [--repeat N]\n");
      std::exit(2);
    }
  }
  return settings;
}

}  // namespace

int main(int argc, char** argv) {
  const Settings settings = Parse(argc, argv);
  TestBroker broker;
  if (!broker.Running()) {
    std::fprintf(stderr, "kelmsg_bus_bench: %s\n", broker.Error().c_str());
    return 1;
  }
  broker.ExportUrl("bench");
  const int port = broker.Port();

  double libraryTrip = 1e300;
  double rawTrip = 1e300;
  double libraryRate = 0;
  double rawRate = 0;
  for (int run = 0; run < settings.repeat; ++run) {
    libraryTrip = std::min(libraryTrip, LibraryRoundTrip(settings));
    rawTrip = std::min(rawTrip, RawRoundTrip(settings, port));
    libraryRate = std::max(libraryRate, LibraryThroughput(settings));
    rawRate = std::max(rawRate, RawThroughput(settings, port));
  }
  PrintBenchRow({"round trip, 16-byte message", libraryTrip, "raw libmosquitto", rawTrip,
                 BenchUnit::kSeconds, BenchGoal::kAtMost, 1.25});
  PrintBenchRow({"throughput, 64 KiB messages", libraryRate, "raw libmosquitto", rawRate,
                 BenchUnit::kBytesPerSecond, BenchGoal::kAtLeast, 0.85});
  FileTransferRows(settings, port);
  return 0;
}
