// The job monitor drives the solver through one whole job on a real broker:
// every step of the demo's transcript happens, in order.
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "ScratchDirectory.h"
#include "TestBroker.h"

namespace {

std::string Read(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(ExampleJob, RunsFromStampToDeparture) {
  TestBroker broker;
  ASSERT_TRUE(broker.Running()) << broker.Error();
  broker.ExportUrl();
  ScratchDirectory scratch;

  ChildProcess monitor =
      ChildProcess::Exec({KELMSG_JOB_MONITOR, KELMSG_SOLVER, scratch / "work"}, scratch / "log");
  ASSERT_EQ(monitor.ExitCode(std::chrono::seconds(120)), 0) << Read(scratch / "log");

  const std::string transcript = Read(scratch / "log");
  std::size_t at = 0;
  for (const char* step :
       {"monitor: the solver sees the job directory through ",
        "monitor: input deck pushed and acknowledged\n", "monitor: solver at 100 %\n",
        "monitor: result pulled back, identical byte for byte: yes\n",
        "solver:  SOFT_KILL from monitor\n", "monitor: the solver has left the bus; job done\n"}) {
    const std::size_t found = transcript.find(step, at);
    ASSERT_NE(found, std::string::npos) << "missing \"" << step << "\" in:\n" << transcript;
    at = found;
  }
  EXPECT_EQ(Read(scratch / "work/job42/model.res"), Read(scratch / "work/job42/model.res.pulled"));
}

}  // namespace
