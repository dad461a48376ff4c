#include "KelmsgProcess.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace {

ChildProcess StartKelmsg(const std::vector<std::string>& arguments,
                         const std::string& workingDirectory, const ScratchDirectory& files) {
  const std::string out = files / "out";
  const std::string err = files / "err";
  // Everything the child needs is made before the fork: it only opens and execs.
  std::vector<char*> argv{const_cast<char*>(KELMSG_TOOL)};
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  return ChildProcess::Fork([&] {
    if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0) return 126;
    const int outFile = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int errFile = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (outFile < 0 || errFile < 0) return 126;
    dup2(outFile, STDOUT_FILENO);
    dup2(errFile, STDERR_FILENO);
    execv(KELMSG_TOOL, argv.data());
    return 127;
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
    if (Out().find(text) != std::string::npos) return true;
    if (!running || std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
}

std::optional<int> KelmsgProcess::ExitCode(std::chrono::milliseconds limit) {
  return m_process.ExitCode(limit);
}

std::string KelmsgProcess::Out() const { return FileContent(m_files / "out"); }

std::string KelmsgProcess::Err() const { return FileContent(m_files / "err"); }

KelmsgResult RunKelmsg(const std::vector<std::string>& arguments,
                       const std::string& workingDirectory, std::chrono::milliseconds limit) {
  KelmsgProcess kelmsg(arguments, workingDirectory);
  const std::optional<int> status = kelmsg.ExitCode(limit);
  return {status, kelmsg.Out(), kelmsg.Err()};
}

int LineCount(const std::string& text) {
  int lines = 0;
  for (char c : text) lines += c == '\n';
  return lines + (!text.empty() && text.back() != '\n');
}

std::string FileContent(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}
