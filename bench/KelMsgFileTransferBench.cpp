// File transfer between real processes on a private broker: a file pushed
// with SendFile and ISendFile and pulled with ReceiveFile (SendFile also over
// mqtts://, beside the same over mqtt://), beside the same
// bytes published in 64 KiB messages by a plain libmosquitto client
// (RawMqttClient, built like the bus's connections) and beside cp, with the
// peak resident size of both processes.  Round trip and throughput of
// messages are kelbus_bench's.
//
//   kelmsg_file_transfer_bench [--file-size BYTES] [--repeat N]
//
// Every participant is a forked child; this process only starts the broker,
// forks, and reads what each child reports through a pipe.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
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

#include "BenchArguments.h"
#include "BenchSourceFile.h"
#include "BenchTable.h"
#include "ChildProcess.h"
#include "RawMqttClient.h"
#include "TestBroker.h"

namespace fs = std::filesystem;

namespace {

constexpr int kLargeBytes = 64 * 1024;
constexpr auto kChildLimit = std::chrono::minutes(5);
// The writing side's memory stays bounded whatever the file's size.
constexpr double kReceiverPeakLimit = 64.0 * 1024 * 1024;

struct Settings {
  std::uintmax_t fileSize = 1024ull * 1024 * 1024;
  // Runs of every measurement; the best one counts, since the machine may be
  // shared and the best run is the one least disturbed.
  std::uintmax_t repeat = 3;
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

// Waits in the bus's loop for ever: a server stays until it is killed.
int Serve() {
  int never = -1;
  KelMsgBBAPI::WaitingLoop(g_communicator, -1, never);
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
    std::fprintf(stderr, "kelmsg_file_transfer_bench: a server did not start\n");
    std::exit(1);
  }
  ChildProcess::Fork(client).ExitCode(kChildLimit);
  return serverProcess;
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

void CheckCopy(const FileNames& files, std::uintmax_t size, const char* what) {
  if (fs::file_size(files.directory + "/" + files.target) != size)
    std::fprintf(stderr, "kelmsg_file_transfer_bench: %s delivered a file of the wrong size\n",
                 what);
  fs::remove(files.directory + "/" + files.target);
}

void FileTransferRows(const Settings& settings, const TestBroker& broker,
                      const TestBroker& tlsBroker) {
  const int port = broker.Port();
  const fs::path directory =
      fs::temp_directory_path() / ("kelmsg-bench-" + std::to_string(getpid()));
  fs::create_directories(directory);
  const FileNames files{directory.string(), "source.dat", "target.dat"};
  const FileNames smallFiles{directory.string(), "small.dat", "target.dat"};
  const std::uintmax_t size = settings.fileSize;
  if (!WriteBenchSourceFile(files.directory + "/" + files.source, size) ||
      !WriteBenchSourceFile(files.directory + "/" + smallFiles.source, size / 16)) {
    std::fprintf(stderr, "kelmsg_file_transfer_bench: cannot write the files to send\n");
    std::exit(1);
  }
  // Otherwise the sources' write-back competes with whichever runs come
  // first, and those are the raw baseline's.
  sync();

  const Way ways[] = {Way::kSendFile, Way::kISendFile, Way::kReceiveFile};
  Transfer raw;
  Transfer small;
  Transfer library[3];
  Transfer tls;  // SendFile over mqtts://
  double copy = 1e300;
  for (std::uintmax_t run = 0; run < settings.repeat; ++run) {
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
    tlsBroker.ExportUrl("bench");
    tls.Merge(LibraryTransfer(Way::kSendFile, files));
    CheckCopy(files, size, "SendFile over mqtts://");
    broker.ExportUrl("bench");
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
                   raw.receiverPeak, BenchUnit::kBytes, BenchGoal::kFigureBelow,
                   kReceiverPeakLimit});
    if (ways[i] == Way::kSendFile) {
      PrintBenchRow({what + " over mqtts://", bytes / tls.seconds, "the same over mqtt://", figure,
                     BenchUnit::kBytesPerSecond, BenchGoal::kAtLeast, 0.7});
      PrintBenchRow({what + ": sender peak RSS", library[i].senderPeak,
                     "the same for a sixteenth of the size", small.senderPeak, BenchUnit::kBytes,
                     BenchGoal::kAtMost, 1.25});
    }
  }
  fs::remove_all(directory);
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  ReadBenchArguments(
      argc, argv, "kelmsg_file_transfer_bench",
      {{"--file-size", "BYTES", &settings.fileSize}, {"--repeat", "N", &settings.repeat, 1}});
  const TestBroker broker;
  const TestBroker tlsBroker(TestBroker::Security::kTlsAndPasswords);
  for (const TestBroker* started : {&broker, &tlsBroker}) {
    if (!started->Running()) {
      std::fprintf(stderr, "kelmsg_file_transfer_bench: %s\n", started->Error().c_str());
      return 1;
    }
  }
  broker.ExportUrl("bench");
  FileTransferRows(settings, broker, tlsBroker);
  return 0;
}
