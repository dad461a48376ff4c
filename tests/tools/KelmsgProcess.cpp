#include "KelmsgProcess.h"

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "TestFiles.h"

namespace {

// Everything a child needs is made before the fork: it only opens and execs.
std::vector<char*> Argv(const std::vector<std::string>& arguments) {
  std::vector<char*> argv{const_cast<char*>(KELMSG_TOOL)};
  for (const std::string& argument : arguments)
    argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return argv;
}

// In the child: the working directory, then kelmsg itself.
int ExecKelmsg(const std::string& workingDirectory, std::vector<char*>& argv) {
  if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0)
    return 126;
  execv(KELMSG_TOOL, argv.data());
  return 127;
}

ChildProcess StartKelmsg(const std::vector<std::string>& arguments,
                         const std::string& workingDirectory, const ScratchDirectory& files) {
  const std::string out = files / "out";
  const std::string err = files / "err";
  std::vector<char*> argv = Argv(arguments);
  return ChildProcess::Fork([&] {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
    return ExecKelmsg(workingDirectory, argv);
  });
}

}  // namespace

KelmsgProcess::KelmsgProcess(const std::vector<std::string>& arguments,
                             const std::string& workingDirectory)
    : m_process(StartKelmsg(arguments, workingDirectory, m_files)) {}

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

std::string KelmsgProcess::Out() const {
  return ReadFile(m_files / "out");
}

std::string KelmsgProcess::Err() const {
  return ReadFile(m_files / "err");
}

KelmsgResult RunKelmsg(const std::vector<std::string>& arguments,
                       const std::string& workingDirectory) {
  KelmsgProcess kelmsg(arguments, workingDirectory);
  const std::optional<int> status = kelmsg.ExitCode();
  return {status, kelmsg.Out(), kelmsg.Err()};
}

std::string RunKelmsgOnTerminal(const std::vector<std::string>& arguments,
                                const std::string& workingDirectory, std::optional<int>& status) {
  int terminal = -1;
  int slave = -1;
  if (openpty(&terminal, &slave, nullptr, nullptr, nullptr) != 0)
    return "";
  std::vector<char*> argv = Argv(arguments);
  ChildProcess kelmsg = ChildProcess::Fork([&] {
    dup2(slave, STDOUT_FILENO);
    return ExecKelmsg(workingDirectory, argv);
  });
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
