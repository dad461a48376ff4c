#include "KelmsgProcess.h"

#include <pty.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <thread>

namespace {

// A shell, started through `launcher`, changes to the working directory
// (empty: the test's), sends one stream of kelmsg's to `path` (`redirection`
// is "2>" or ">") and becomes kelmsg.  The names travel as arguments, so
// that none needs quoting.
ChildProcess StartKelmsg(const std::vector<std::string>& arguments,
                         const std::string& workingDirectory, const std::string& redirection,
                         const std::string& path, const std::string& outputPath,
                         const std::vector<std::string>& launcher = {}) {
  std::vector<std::string> argv = launcher;
  argv.insert(argv.end(),
              {"/bin/sh", "-c",
               "cd \"$1\" && f=$2 && shift 2 && exec \"$0\" \"$@\" " + redirection + "\"$f\"",
               KELMSG_TOOL, workingDirectory.empty() ? "." : workingDirectory, path});
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return ChildProcess::Exec(argv, outputPath);
}

}  // namespace

KelmsgProcess::KelmsgProcess(const std::vector<std::string>& arguments,
                             const std::string& workingDirectory,
                             const std::vector<std::string>& launcher)
    : m_process(StartKelmsg(arguments, workingDirectory, "2>", m_files / "err", m_files / "out",
                            launcher)) {}

KelmsgProcess::~KelmsgProcess() {
  if (!m_process.Running())
    return;
  m_process.Signal(SIGTERM);
  m_process.Signal(SIGCONT);  // a test may have stopped it
  m_process.Wait(5s);
}

std::vector<std::string> KelmsgProcess::OnTmpfs(const std::string& directory, std::size_t bytes) {
  return {KELMSG_UNSHARE,
          "--map-root-user",
          "--mount",
          "/bin/sh",
          "-c",
          "mount -t tmpfs -o size=" + std::to_string(bytes) + " tmpfs \"$0\" && exec \"$@\"",
          directory};
}

bool KelmsgProcess::WaitForOutput(const std::string& text, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    // Read once more after the end: the last words may come with it.
    const bool running = m_process.Running();
    if (Out().find(text) != std::string::npos)
      return true;
    if (!running || std::chrono::steady_clock::now() >= deadline)
      return false;
    std::this_thread::sleep_for(10ms);
  }
}

std::string RunKelmsgOnTerminal(const std::vector<std::string>& arguments,
                                const std::string& workingDirectory, std::optional<int>& status) {
  int terminal = -1;
  int slave = -1;
  if (openpty(&terminal, &slave, nullptr, nullptr, nullptr) != 0)
    return "";
  ChildProcess kelmsg = StartKelmsg(arguments, workingDirectory, ">", ptsname(terminal), "");
  close(slave);
  // Drain the terminal while kelmsg runs, so that it never blocks on a full one.
  std::string output;
  char buffer[4096];
  for (ssize_t got; (got = read(terminal, buffer, sizeof buffer)) > 0;)
    output.append(buffer, static_cast<std::size_t>(got));
  close(terminal);
  status = kelmsg.ExitCode(30s);
  return output;
}

void KelmsgProcess::ExportPrintedSettings() const {
  std::istringstream lines(Out());
  for (std::string line; std::getline(lines, line);) {
    if (const std::size_t equals = line.find('='); equals != std::string::npos)
      setenv(line.substr(0, equals).c_str(), line.substr(equals + 1).c_str(), 1);
  }
}
