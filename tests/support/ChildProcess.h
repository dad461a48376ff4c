// A child process for tests and benchmarks: a function run in a fork, or a
// program.  The object owns the child: its destructor kills (SIGKILL) and
// reaps a child that is still running, so a failing test leaves nothing
// behind.
//
//   ChildProcess child = ChildProcess::Fork([] { return DoWork() ? 0 : 1; });
//   std::optional<int> code = child.ExitCode(std::chrono::seconds(10));
//
// A forked child ends with _exit(function's result) after flushing stdio:
// static destructors and atexit handlers do not run, as if it had died.  A
// child that should end normally calls exit() itself.  LeakSanitizer does
// not check a forked child at exit: it cannot see what the parent's other
// threads held at the fork (the parent's own check covers the same code).
#ifndef KELMSG_TESTS_SUPPORT_CHILDPROCESS_H_
#define KELMSG_TESTS_SUPPORT_CHILDPROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class ChildProcess {
 public:
  static ChildProcess Fork(const std::function<int()>& body);
  // Runs `argv[0]` (a path) with the arguments; standard output and error
  // go to `outputPath` when it is not empty.
  static ChildProcess Exec(const std::vector<std::string>& argv,
                           const std::string& outputPath = "");

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ~ChildProcess();

  pid_t Pid() const { return m_pid; }
  bool Running();
  // The wait status (see waitpid) once the child has ended, or nothing if it
  // still runs after `limit`.
  std::optional<int> Wait(std::chrono::milliseconds limit);
  // The exit code of a child that called exit or returned, or nothing if it
  // still runs after `limit` or was killed by a signal.
  std::optional<int> ExitCode(std::chrono::milliseconds limit);
  void Signal(int signal);
  // SIGKILL, then wait.
  void Kill();

 private:
  explicit ChildProcess(pid_t pid) : m_pid(pid) {}

  pid_t m_pid;
  std::optional<int> m_status;
};

#endif  // KELMSG_TESTS_SUPPORT_CHILDPROCESS_H_
