// The job monitor drives the solver through one whole job on a real broker:
// every step of the demo's transcript happens, in order.  The monitor
// compares the result it pulled back itself.
#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"
#include "TestFiles.h"

namespace {

TEST(ExampleJob, RunsFromStampToDeparture) {
  TestBroker broker;
  ASSERT_TRUE(broker.Running()) << broker.Error();
  broker.ExportUrl();
  ScratchDirectory scratch;

  ChildProcess monitor =
      ChildProcess::Exec({KELMSG_JOB_MONITOR, KELMSG_SOLVER, scratch / "work"}, scratch / "log");
  ASSERT_EQ(monitor.ExitCode(std::chrono::seconds(120)), 0) << ReadFile(scratch / "log");
  const std::string transcript = ReadFile(scratch / "log");
  std::size_t at = 0;
  for (const char* step :
       {"monitor: the solver sees the job directory through ",
        "monitor: input deck pushed and acknowledged\n", "monitor: solver at 100 %\n",
        "monitor: result pulled back, identical byte for byte: yes\n",
        "solver:  SOFT_KILL from monitor\n", "monitor: the solver has left the bus; job done\n"}) {
    at = transcript.find(step, at);
    ASSERT_NE(at, std::string::npos) << "missing \"" << step << "\" in:\n" << transcript;
  }
}

}  // namespace
