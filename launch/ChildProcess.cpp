#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

namespace {
bool g_forkedChild = false;
}  // namespace

// LeakSanitizer asks this before its check at exit.  A forked child skips the
// check: what the parent's other threads held at the fork is out of its
// sight and would be reported as leaked.
extern "C" int __lsan_is_turned_off() {
  return g_forkedChild ? 1 : 0;
}

namespace {

// A child must not outlive the process that started it: a test killed by its
// time limit would otherwise leave brokers and peers running.  Called in the
// child right after fork; `parent` is the pid before the fork.
void DieWithParent(pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    _exit(1);  // the parent was gone before the call
}

// fork() with output flushed first, so nothing buffered is written twice; in
// the child, after tying its life to the parent's.  Ends the process when no
// process can be made.
pid_t ForkChild() {
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("fork");
    std::abort();
  }
  if (pid == 0)
    DieWithParent(parent);
  return pid;
}

}  // namespace

ChildProcess ChildProcess::Fork(const std::function<int()>& body) {
  const pid_t pid = ForkChild();
  if (pid == 0) {
    g_forkedChild = true;
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  }
  return ChildProcess(pid);
}

ChildProcess ChildProcess::Exec(const std::vector<std::string>& argv,
                                const std::string& outputPath) {
  std::vector<char*> arguments;
  for (const std::string& argument : argv)
    arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  const pid_t pid = ForkChild();
  if (pid == 0) {
    if (!outputPath.empty()) {
      const int output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (output >= 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        close(output);
      }
    }
    execv(arguments[0], arguments.data());
    std::perror(arguments[0]);
    _exit(127);
  }
  return ChildProcess(pid);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_status(other.m_status) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    if (m_pid > 0 && !m_status)
      Kill();
    m_pid = std::exchange(other.m_pid, -1);
    m_status = other.m_status;
  }
  return *this;
}

ChildProcess::~ChildProcess() {
  if (m_pid > 0 && !m_status)
    Kill();
}

bool ChildProcess::Running() {
  return !Wait(std::chrono::milliseconds(0));
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (m_status || m_pid <= 0)
    return m_status;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(m_pid, &status, WNOHANG);
    if (done == m_pid) {
      m_status = status;
      return m_status;
    }
    if (std::chrono::steady_clock::now() >= deadline)
      return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::optional<int> ChildProcess::ExitCode(std::chrono::milliseconds limit) {
  const std::optional<int> status = Wait(limit);
  if (!status || !WIFEXITED(*status))
    return std::nullopt;
  return WEXITSTATUS(*status);
}

void ChildProcess::Signal(int signal) {
  if (m_pid > 0 && !m_status)
    kill(m_pid, signal);
}

void ChildProcess::Kill() {
  Signal(SIGKILL);
  int status = 0;
  if (m_pid > 0 && !m_status && waitpid(m_pid, &status, 0) == m_pid)
    m_status = status;
}
