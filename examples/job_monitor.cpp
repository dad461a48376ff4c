// The job monitor of the demo.  It prepares a job directory, starts the
// solver with its own view of that directory, and then drives the whole job
// over the bus:
//
//   1. stamp files: does the solver see the monitor's job directory?
//   2. push the input deck to the solver (blocking push, acknowledged);
//   3. follow the solver's progress reports (analysis XML messages);
//   4. pull the result file back and compare it byte for byte;
//   5. send a soft kill, and notice through the disconnect handler that the
//      solver has left the bus.
//
//   kelmsg_job_monitor SOLVER_PROGRAM WORK_DIR
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgFileTransfer.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferHandler.h>
#include <KelMsgFeaMessaging/KelMsgFileTransferType.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlTypeFactory.h>
#include <KelMsgFeaMessaging/KelMsgSimpleDisconnectHandler.h>

#include "AnalysisDocuments.h"
#include "SuiteProcess.h"

namespace fs = std::filesystem;

namespace {

constexpr char kSolver[] = "solver";
constexpr char kJob[] = "job42";

// What the monitor has heard from the solver so far.
struct SolverReports {
  int arrived = -1;  // set to 0 by every report the monitor waits for
  bool shared = false;
  std::string result;
};

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteInputDeck(const fs::path& path) {
  std::ofstream deck(path, std::ios::binary);
  deck << "*HEADING\nbracket under load\n*NODE\n1, 0.0, 0.0\n2, 1.0, 0.0\n3, 1.0, 1.0\n"
       << "*ELEMENT, TYPE=CPS3\n1, 1, 2, 3\n*STEP\n*STATIC\n*END STEP\n";
}

pid_t StartSolver(const char* program, const fs::path& base) {
  const pid_t pid = fork();
  if (pid == 0) {
    execl(program, program, base.c_str(), kJob, static_cast<char*>(nullptr));
    std::perror(program);
    _exit(127);
  }
  return pid;
}

int Fail(const char* what) {
  std::printf("monitor: FAILED: %s\n", what);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: kelmsg_job_monitor SOLVER_PROGRAM WORK_DIR\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const fs::path base = fs::absolute(argv[2]);
  const fs::path solverBase = base / "solver-view";  // the same directory, by another name
  fs::create_directories(base / kJob);
  fs::create_directory_symlink(base, solverBase);
  WriteInputDeck(base / kJob / "model.inp");

  // The engine outlives `bus`, whose registry deletes the handler that points at it.
  KelMsgFileTransfer files(-1, nullptr, 0);
  SuiteProcess bus("monitor");
  files.SetCommunicatorId(bus.Communicator());
  bus.Handle(new KelMsgFileTransferType, new KelMsgFileTransferHandler(&files));
  SolverReports reports;
  bus.Handle(new KelMsgAnalysisMessageType,
             new DocumentHandler([&](const std::string& kind, const Attributes& attributes) {
               if (kind == "Progress") {
                 std::printf("monitor: solver at %s %%\n",
                             AttributeOf(attributes, "percent").c_str());
                 return;
               }
               if (kind == "SolverReady")
                 reports.shared = AttributeOf(attributes, "shared") == "yes";
               if (kind == "Finished")
                 reports.result = AttributeOf(attributes, "result");
               reports.arrived = 0;
             }));
  KelMsgSimpleDisconnectHandler departures;
  departures.SetWatchApplication(kSolver, -1, nullptr);
  departures.SetDisconnectBehavior(KelMsgSimpleDisconnectHandler::e_endWaitingLoop);
  bus.WatchDepartures(departures);

  KelMsgPathExplorer::StampPath(base.c_str(), kJob, "monitor");
  const pid_t solver = StartSolver(argv[1], solverBase);
  if (!bus.WaitFor(reports.arrived, 30))
    return Fail("the solver did not report in");
  KelMsgPathExplorer::RemoveStampFile(base.c_str(), kJob, "monitor");
  std::printf("monitor: the solver sees the job directory through %s: %s\n", solverBase.c_str(),
              reports.shared ? "yes" : "no");
  if (!reports.shared)
    return Fail("no shared job directory");

  files.SendFile("monitor", base.c_str(), kJob, "model.inp", kSolver, solverBase.c_str(), kJob,
                 "solver-input.inp");
  std::printf("monitor: input deck pushed and acknowledged\n");
  bus.Send(kSolver,
           KelMsgAnalysisMessageType(MakeDocument("Run", {{"deck", "solver-input.inp"}}).c_str()));
  if (!bus.WaitFor(reports.arrived, 60))
    return Fail("the solver did not finish");

  files.ReceiveFile(kSolver, solverBase.c_str(), kJob, reports.result.c_str(), "monitor",
                    base.c_str(), kJob, "model.res.pulled");
  const bool identical =
      ReadFile(base / kJob / reports.result) == ReadFile(base / kJob / "model.res.pulled");
  std::printf("monitor: result pulled back, identical byte for byte: %s\n",
              identical ? "yes" : "no");
  if (!identical)
    return Fail("the pulled result differs");

  bus.Send(kSolver, *KelMsgProcessControlTypeFactory::CreateSoftKillMsg());
  if (!bus.WaitFor(departures.EndingCondition(), 30))
    return Fail("the solver did not leave");
  std::printf("monitor: the solver has left the bus; job done\n");
  int status = 0;
  waitpid(solver, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : Fail("the solver failed");
}
