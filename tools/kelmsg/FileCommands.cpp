// serve, push and pull: the library's file transfer from a shell.
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgVerifiedTransfer.h>
#include <CLI/CLI.hpp>

#include "CommandFailure.h"
#include "Commands.h"
#include "Session.h"
#include "StopSignals.h"
#include "TransferProgress.h"

namespace fs = std::filesystem;

namespace {

// The level at which the server traces: a few lines per transfer step.
constexpr int kServerTraceLevel = 1;

struct ServeOptions {
  std::string application;
  std::string directory;
  bool keepPartial = false;
  bool unconfined = false;
  int idleSeconds = KelMsgFileTransfer::kDefaultIdleSeconds;
};

// A file that outgrows the process's size limit makes the write fail with
// "File too large", which the receipt reports, instead of killing us.
void ReportFileSizeLimits() {
  std::signal(SIGXFSZ, SIG_IGN);
}

// Ends serving on a kill request, soft or hard: a file server has no
// analysis to save first.
class KillHandler : public KelMsgBBMessageHandler {
 public:
  explicit KillHandler(int& killed) : m_killed(killed) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& request = static_cast<const KelMsgProcessControlType&>(msg);
    std::printf("%s from %s: leaving\n", request.GetVal("Kill").GetUTF8(), id);
    m_killed = 0;
  }

 private:
  int& m_killed;
};

void Serve(const ServeOptions& options) {
  if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) {
    throw CommandFailure("cannot serve from " + options.directory + ": " + std::strerror(errno));
  }
  if (options.unconfined) {
    std::fprintf(stderr,
                 "kelmsg serve: warning: unconfined: any application on the bus may read and "
                 "write every file that this user can\n");
  }
  StopSignals::Catch();
  ReportFileSizeLimits();
  Session session(options.application);
  KelMsgVerifiedTransfer files(session.Communicator(), session.Application(), stdout,
                               kServerTraceLevel, stdout);
  files.SetKeepPartial(options.keepPartial);
  files.SetReceiveLimits(KelMsgFileTransfer::kDefaultMaxReceiveFiles, options.idleSeconds);
  const std::string directory = fs::current_path();
  const int error = options.unconfined ? 0 : files.ConfineTo(directory.c_str());
  if (error != 0)
    throw CommandFailure("cannot serve from " + directory + ": " + std::strerror(error));
  session.WatchDepartures(files.DepartureWatcher());
  int killed = -1;
  session.Handle(new KelMsgProcessControlType, new KillHandler(killed));
  std::printf("serving files as %s from %s\n", session.Application(), directory.c_str());
  std::fflush(stdout);
  // The waits close the received files left idle on their own.
  session.Wait(killed, std::chrono::seconds::zero());
}

// One file between this process and a server: the server's application,
// and the three names of each side's file.
struct TransferOptions {
  std::string server;
  std::string source;
  std::string target;
  std::string application;
  std::string baseDir = fs::current_path().string();
  std::string jobDir;
  std::string serverBaseDir;  // empty: the server's current directory
  std::string serverJobDir;
  bool noWait = false;
  bool keepPartial = false;
  int timeoutSeconds = 60;
};

std::string LocalPath(const TransferOptions& options, const std::string& fileName) {
  return KelMsgPathExplorer::FormPath(options.baseDir.c_str(), options.jobDir.c_str(),
                                      fileName.c_str())
      .GetUTF8();
}

std::int64_t ReadableFileSize(const std::string& path) {
  std::error_code error;
  const std::uintmax_t size = fs::file_size(path, error);
  if (error)
    throw CommandFailure("cannot read " + path + ": " + error.message());
  if (access(path.c_str(), R_OK) != 0) {
    throw CommandFailure("cannot read " + path + ": " + std::strerror(errno));
  }
  return static_cast<std::int64_t>(size);
}

// This process on the bus with verified transfers whose chunks feed
// `progress`.  The session outlives the transfers, whose handlers it deletes.
class TransferSession {
 public:
  TransferSession(const TransferOptions& options, TransferProgress& progress)
      : m_session(options.application),
        m_files(m_session.Communicator(), m_session.Application(), nullptr, 0, stderr) {
    m_files.SetProgressListener([&progress](int bytes) { progress.Add(bytes); });
    m_files.SetPatience(options.timeoutSeconds);
    m_files.SetKeepPartial(options.keepPartial);
    m_session.WatchDepartures(m_files.DepartureWatcher());
  }

  KelMsgVerifiedTransfer& Files() { return m_files; }

  // A server that is not on the bus would show only as silence, after the
  // time-out; the bus knows at once.
  void RequireServing(const std::string& server) const {
    if (m_session.Absent(server))
      throw CommandFailure(server + " is not on the bus (is it serving?)");
  }

  // Throws the transfer's one line unless it was verified.
  void Check(bool verified) const {
    if (!verified)
      throw CommandFailure(m_files.Report().GetUTF8());
  }

 private:
  Session m_session;
  KelMsgVerifiedTransfer m_files;
};

void Push(const TransferOptions& options) {
  const std::int64_t size = ReadableFileSize(LocalPath(options, options.source));
  TransferProgress progress(stdout, options.source + " -> " + options.server + ":" + options.target,
                            size);
  TransferSession transfer(options, progress);
  transfer.RequireServing(options.server);
  const bool verified =
      transfer.Files().Push(options.baseDir.c_str(), options.jobDir.c_str(), options.source.c_str(),
                            options.server.c_str(), options.serverBaseDir.c_str(),
                            options.serverJobDir.c_str(), options.target.c_str(), !options.noWait);
  progress.Finish();
  transfer.Check(verified);
}

void Pull(const TransferOptions& options) {
  ReportFileSizeLimits();
  TransferProgress progress(stdout, options.server + ":" + options.source + " -> " + options.target,
                            TransferProgress::kUnknownSize);
  TransferSession transfer(options, progress);
  transfer.RequireServing(options.server);
  const bool verified = transfer.Files().Pull(options.server.c_str(), options.serverBaseDir.c_str(),
                                              options.serverJobDir.c_str(), options.source.c_str(),
                                              options.baseDir.c_str(), options.jobDir.c_str(),
                                              options.target.c_str());
  progress.Finish();
  transfer.Check(verified);
}

CLI::App* AddTransferCommand(CLI::App& app, const char* name, const char* description,
                             const std::shared_ptr<TransferOptions>& options) {
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("APP", options->server, "the server's application name")
      ->required()
      ->type_name("NAME");
  command->add_option("SOURCE", options->source, "file to send, in its side's job directory")
      ->required()
      ->type_name("FILE");
  command->add_option("TARGET", options->target, "file to write, in its side's job directory")
      ->required()
      ->type_name("FILE");
  AddApplicationNameOption(*command, options->application);
  command->add_option("--base", options->baseDir, "this side's base directory")
      ->capture_default_str()
      ->type_name("DIR");
  command
      ->add_option("--job", options->jobDir,
                   "this side's job directory, relative to --base unless absolute")
      ->type_name("DIR");
  command
      ->add_option("--server-base", options->serverBaseDir,
                   "the server's base directory (default: its current directory)")
      ->type_name("DIR");
  command->add_option("--server-job", options->serverJobDir, "the server's job directory")
      ->type_name("DIR");
  command
      ->add_option("--timeout", options->timeoutSeconds,
                   "give up when what is awaited (the next chunk, or the receipt) does not "
                   "come for this many seconds; 0 waits for ever")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  return command;
}

void AddKeepPartialFlag(CLI::App& command, bool& keepPartial) {
  command.add_flag("--keep-partial", keepPartial,
                   "keep what a failed transfer wrote, as TARGET.partial");
}

}  // namespace

void AddFileCommands(CLI::App& app) {
  auto serve = std::make_shared<ServeOptions>();
  CLI::App* serveCommand = app.add_subcommand(
      "serve",
      "join the bus as APP, take pushed files and answer pulls until interrupted or "
      "sent a kill");
  serveCommand->add_option("APP", serve->application, "application name to serve as")
      ->required()
      ->type_name("NAME");
  serveCommand
      ->add_option("--dir", serve->directory,
                   "directory that relative names are read against, and beyond which peers "
                   "may neither read nor write (default: current)")
      ->type_name("DIR");
  serveCommand->add_flag("--unconfined", serve->unconfined,
                         "let peers read and write files anywhere this user may, not only "
                         "beneath --dir");
  serveCommand
      ->add_option("--idle-timeout", serve->idleSeconds,
                   "close and remove a received file that nothing has reached for this many "
                   "seconds; at most " +
                       std::to_string(KelMsgFileTransfer::kDefaultMaxReceiveFiles) +
                       " are open at once")
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  AddKeepPartialFlag(*serveCommand, serve->keepPartial);
  serveCommand->callback([serve] { Serve(*serve); });

  auto push = std::make_shared<TransferOptions>();
  CLI::App* pushCommand =
      AddTransferCommand(app, "push", "send the local file SOURCE to APP as TARGET", push);
  pushCommand->add_flag("--no-wait", push->noWait,
                        "leave once the file is sent, without waiting for the receipt; APP still "
                        "checks the file and logs what went wrong");
  pushCommand->callback([push] { Push(*push); });

  auto pull = std::make_shared<TransferOptions>();
  CLI::App* pullCommand = AddTransferCommand(
      app, "pull", "fetch the file SOURCE from APP into the local file TARGET", pull);
  AddKeepPartialFlag(*pullCommand, pull->keepPartial);
  pullCommand->callback([pull] { Pull(*pull); });
}
