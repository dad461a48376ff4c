// KelmsgProcess: the built kelmsg, run as a user runs it: a process of its
// own with the test's environment (KELBUS_URL included), its standard output
// and error captured apart.  The object owns the process and, when it goes,
// stops one still running as a user would (SIGTERM, so that it removes what
// it made), killing it after 5 s; one thread uses it.
#ifndef KELMSG_TESTS_TOOLS_KELMSGPROCESS_H_
#define KELMSG_TESTS_TOOLS_KELMSGPROCESS_H_

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "ScratchDirectory.h"
#include "TestFiles.h"

using namespace std::chrono_literals;

class KelmsgProcess {
 public:
  // Starts `kelmsg arguments...` in `workingDirectory` (empty: the test's),
  // through `launcher` when it is not empty (a command that runs another,
  // such as `ip netns exec NAME env VARIABLE=VALUE`).
  explicit KelmsgProcess(const std::vector<std::string>& arguments,
                         const std::string& workingDirectory = "",
                         const std::vector<std::string>& launcher = {});
  ~KelmsgProcess();
  KelmsgProcess(const KelmsgProcess&) = delete;
  KelmsgProcess& operator=(const KelmsgProcess&) = delete;
  // A launcher for the constructor that runs kelmsg in a mount namespace of
  // its own (unshare) where `directory` is a fresh tmpfs of `bytes`, which
  // only that process sees (under /proc/<Pid()>/root); where namespaces or
  // mounting are not permitted, the process ends at once with status 1 and
  // says why.
  static std::vector<std::string> OnTmpfs(const std::string& directory, std::size_t bytes);

  // Waits until standard output holds `text`; false when the process ends
  // first or `limit` passes.
  bool WaitForOutput(const std::string& text, std::chrono::milliseconds limit = 10s);
  // The exit code, or nothing when the process still runs after `limit` or
  // was ended by a signal.
  std::optional<int> ExitCode(std::chrono::milliseconds limit = 30s) {
    return m_process.ExitCode(limit);
  }
  bool Running() { return m_process.Running(); }
  // kelmsg's once it has written anything; before, that of the shell that
  // becomes it.
  pid_t Pid() const { return m_process.Pid(); }
  void Signal(int signal) { m_process.Signal(signal); }

  std::string Out() const { return ReadFile(m_files / "out"); }
  // Sets every NAME=VALUE line of Out() in this process's environment, as a
  // shell would take what `kelmsg bus` prints.
  void ExportPrintedSettings() const;
  std::string Err() const { return ReadFile(m_files / "err"); }

 private:
  ScratchDirectory m_files;  // before m_process: the child writes there
  ChildProcess m_process;
};

// Runs kelmsg to its end, at most 30 s, with a terminal as its standard
// output, and returns what it wrote there; its standard error is the
// test's, and its exit code goes to `status`.
std::string RunKelmsgOnTerminal(const std::vector<std::string>& arguments,
                                const std::string& workingDirectory, std::optional<int>& status);

#endif  // KELMSG_TESTS_TOOLS_KELMSGPROCESS_H_
