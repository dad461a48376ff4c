#include "KelmsgProcess.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <thread>

namespace {

// Everything the child needs is made before the fork: it only runs
// `redirect`, which opens and duplicates descriptors, then changes directory
// and execs.
ChildProcess StartKelmsg(const std::vector<std::string>& arguments,
                         const std::string& workingDirectory,
                         const std::function<void()>& redirect) {
  std::vector<char*> argv{const_cast<char*>(KELMSG_TOOL)};
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return ChildProcess::Fork([&] {
    redirect();
    if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
      return 126;
    execv(KELMSG_TOOL, argv.data());
    return 127;
  });
}

}  // namespace

KelmsgProcess::KelmsgProcess(const std::vector<std::string>& arguments,
                             const std::string& workingDirectory)
    : m_process(
          StartKelmsg(arguments, workingDirectory, [out = m_files / "out", err = m_files / "err"] {
            dup2(open(out.c_str(), O_WRONLY | O_CREAT, 0644), STDOUT_FILENO);
            dup2(open(err.c_str(), O_WRONLY | O_CREAT, 0644), STDERR_FILENO);
          })) {}

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
  ChildProcess kelmsg =
      StartKelmsg(arguments, workingDirectory, [slave] { dup2(slave, STDOUT_FILENO); });
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

int LineCount(const std::string& text) {
  return static_cast<int>(std::count(text.begin(), text.end(), '\n')) +
         (!text.empty() && text.back() != '\n');
}
