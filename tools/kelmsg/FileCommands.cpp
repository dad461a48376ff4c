// serve, push and pull: the library's file transfer from a shell.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <CLI/CLI.hpp>

#include "ChunkTap.h"
#include "CommandFailure.h"
#include "Commands.h"
#include "IdleTimeout.h"
#include "Session.h"
#include "StopSignals.h"
#include "TransferProgress.h"

namespace fs = std::filesystem;

namespace {

// The level at which the server traces: a few lines per transfer step.
constexpr int kServerTraceLevel = 1;
// An engine made before its session learns the communicator afterwards.
constexpr int kNoCommunicatorYet = -1;

struct ServeOptions {
  std::string application;
  std::string directory;
};

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
  StopSignals::Catch();
  // Made first, the engine outlives the handler that the session deletes.
  KelMsgFileTransfer engine(kNoCommunicatorYet, stdout, kServerTraceLevel);
  Session session(options.application);
  engine.SetCommunicatorId(session.Communicator());
  session.Handle(new KelMsgFileTransferType, new KelMsgFileTransferHandler(&engine));
  int killed = -1;
  session.Handle(new KelMsgProcessControlType, new KillHandler(killed));
  std::printf("serving files as %s from %s\n", session.Application(), fs::current_path().c_str());
  std::fflush(stdout);
  session.Wait(killed, {});
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

// The engine reports nothing when it cannot create the target: find out first.
void CheckWritable(const std::string& path) {
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT, 0640);
  if (descriptor < 0)
    throw CommandFailure("cannot write " + path + ": " + std::strerror(errno));
  close(descriptor);
}

std::string NoAnswer(const char* command, const TransferOptions& options) {
  return std::string("kelmsg ") + command + ": no answer from " + options.server + " within " +
         std::to_string(options.timeoutSeconds) + " s (is it serving?)";
}

// This process on the bus with a file-transfer engine whose chunks feed
// `progress` and keep `idle` from firing.  The engine is made before the
// session and so outlives the handler that points at it, which the session's
// registry deletes.
class TransferSession {
 public:
  TransferSession(const std::string& application, TransferProgress& progress,
                  const IdleTimeout& idle)
      : m_tap([&progress, &idle](int bytes) {
          progress.Add(bytes);
          idle.Restart();
        }),
        m_engine(kNoCommunicatorYet, m_tap.Stream(), ChunkTap::kTraceLevel),
        m_session(application) {
    m_engine.SetCommunicatorId(m_session.Communicator());
    m_session.Handle(new KelMsgFileTransferType, new KelMsgFileTransferHandler(&m_engine));
  }

  KelMsgFileTransfer& Engine() { return m_engine; }
  const char* Application() const { return m_session.Application(); }

 private:
  ChunkTap m_tap;
  KelMsgFileTransfer m_engine;
  Session m_session;
};

void Push(const TransferOptions& options) {
  const std::int64_t size = ReadableFileSize(LocalPath(options, options.source));
  TransferProgress progress(stdout, options.source + " -> " + options.server + ":" + options.target,
                            size);
  const IdleTimeout idle(NoAnswer("push", options), options.timeoutSeconds);
  TransferSession transfer(options.application, progress, idle);
  const auto push = options.noWait ? &KelMsgFileTransfer::ISendFile : &KelMsgFileTransfer::SendFile;
  (transfer.Engine().*push)(transfer.Application(), options.baseDir.c_str(), options.jobDir.c_str(),
                            options.source.c_str(), options.server.c_str(),
                            options.serverBaseDir.c_str(), options.serverJobDir.c_str(),
                            options.target.c_str());
  progress.Finish();
}

void Pull(const TransferOptions& options) {
  CheckWritable(LocalPath(options, options.target));
  TransferProgress progress(stdout, options.server + ":" + options.source + " -> " + options.target,
                            TransferProgress::kUnknownSize);
  const IdleTimeout idle(NoAnswer("pull", options), options.timeoutSeconds);
  TransferSession transfer(options.application, progress, idle);
  transfer.Engine().ReceiveFile(options.server.c_str(), options.serverBaseDir.c_str(),
                                options.serverJobDir.c_str(), options.source.c_str(),
                                transfer.Application(), options.baseDir.c_str(),
                                options.jobDir.c_str(), options.target.c_str());
  progress.Finish();
  // A pull of a file that the server lacks ends like one of an empty file.
  if (progress.Bytes() == 0) {
    throw CommandFailure(options.server + " sent nothing for " + options.source +
                         " (missing or empty there)");
  }
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
                   "give up when nothing moves for this many seconds; 0 waits for ever")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  return command;
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
                   "directory that relative names are read against (default: current)")
      ->type_name("DIR");
  serveCommand->callback([serve] { Serve(*serve); });

  auto push = std::make_shared<TransferOptions>();
  CLI::App* pushCommand =
      AddTransferCommand(app, "push", "send the local file SOURCE to APP as TARGET", push);
  pushCommand->add_flag("--no-wait", push->noWait,
                        "leave once the file is sent, without waiting for APP to confirm");
  pushCommand->callback([push] { Push(*push); });

  auto pull = std::make_shared<TransferOptions>();
  AddTransferCommand(app, "pull", "fetch the file SOURCE from APP into the local file TARGET", pull)
      ->callback([pull] { Pull(*pull); });
}
