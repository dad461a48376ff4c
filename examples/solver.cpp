// The solver of the demo: joins the bus as "solver", tells the job monitor
// whether it sees the monitor's job directory, takes the input deck the
// monitor pushes, "runs" while reporting progress as analysis messages,
// writes a result file, serves the monitor's pull of it, and leaves when it
// is sent a soft kill.  Peers read and write only beneath BASE_DIR.
//
//   kelmsg_solver BASE_DIR JOB_DIR
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>

#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>
#include <KelMsgFeaMessaging/KelMsgAnalysisState.h>
#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>
#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>
#include <KelMsgFeaMessaging/KelMsgVerifiedTransfer.h>

#include "AnalysisDocuments.h"
#include "SuiteProcess.h"

namespace {

constexpr char kMonitor[] = "monitor";

// Ends the solver's wait for a soft kill; a hard kill ends the process.
class KillHandler : public KelMsgBBMessageHandler {
 public:
  explicit KillHandler(int* killed) : m_killed(killed) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    const auto& control = static_cast<const KelMsgProcessControlType&>(msg);
    const std::string value = control.GetVal("Kill").GetUTF8();
    std::printf("solver:  %s from %s\n", value.c_str(), id);
    if (value == "HARD_KILL")
      std::_Exit(1);
    *m_killed = 0;
  }

 private:
  int* m_killed;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The "analysis": one result line per line of the deck.
std::string Solve(const std::string& deck, const SuiteProcess& bus) {
  std::istringstream lines(deck);
  std::string line;
  std::string result = "RESULTS\n";
  for (int step = 1; step <= 4; ++step) {
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    const double percent = 25.0 * step;
    KelMsgAnalysisState::SetPercentage(percent);
    const KelMsgAnalysisMessageType progress(
        MakeDocument("Progress", {{"percent", std::to_string(static_cast<int>(percent))}}).c_str());
    bus.Send(kMonitor, progress);
  }
  for (int n = 1; std::getline(lines, line); ++n) {
    result +=
        "element " + std::to_string(n) + ": stress " + std::to_string(line.size() * 1.5) + "\n";
  }
  return result;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: kelmsg_solver BASE_DIR JOB_DIR\n");
    return 2;
  }
  const char* base = argv[1];
  const char* job = argv[2];
  std::setvbuf(stdout, nullptr, _IOLBF, 0);

  // Verified transfers, so that a monitor that verifies gets a receipt for
  // the deck and a statement with the result; the monitor may speak the
  // plain file-transfer messages as well.  `files`, made after `bus`, goes
  // first: the registry of `bus` deletes the handlers that point at it.
  SuiteProcess bus("solver");
  KelMsgVerifiedTransfer files(bus.Communicator(), bus.Name(), nullptr, 0, nullptr);
  bus.WatchDepartures(files.DepartureWatcher());
  // Peers reach no file outside the base directory.
  if (const int error = files.ConfineTo(base); error != 0) {
    std::fprintf(stderr, "solver: cannot serve files from %s: %s\n", base, std::strerror(error));
    return 1;
  }

  int runRequested = -1;
  std::string deckName;
  bus.Handle(new KelMsgAnalysisMessageType,
             new DocumentHandler([&](const std::string& kind, const Attributes& attributes) {
               if (kind != "Run")
                 return;
               deckName = AttributeOf(attributes, "deck");
               runRequested = 0;
             }));
  int killed = -1;
  bus.Handle(new KelMsgProcessControlType, new KillHandler(&killed));

  const bool shared = KelMsgPathExplorer::IsSharedPath(base, job, "monitor");
  bus.Send(kMonitor, KelMsgAnalysisMessageType(
                         MakeDocument("SolverReady", {{"shared", shared ? "yes" : "no"}}).c_str()));

  if (!bus.WaitFor(runRequested, 30))
    return 1;
  const std::string deckPath = KelMsgPathExplorer::FormPath(base, job, deckName.c_str()).GetUTF8();
  std::printf("solver:  running %s\n", deckPath.c_str());
  const std::string result = Solve(ReadFile(deckPath), bus);
  const std::string resultPath = KelMsgPathExplorer::FormPath(base, job, "model.res").GetUTF8();
  std::ofstream(resultPath, std::ios::binary) << result;
  bus.Send(kMonitor,
           KelMsgAnalysisMessageType(MakeDocument("Finished", {{"result", "model.res"}}).c_str()));

  // The monitor's pull of the result is served by the file-transfer handler
  // while the solver waits here for its kill.
  if (!bus.WaitFor(killed, 60))
    return 1;
  std::printf("solver:  leaving the bus\n");
  return 0;
}
