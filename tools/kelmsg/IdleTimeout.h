// IdleTimeout: ends the process with one line on standard error when a
// transfer has not moved for a while.  The engine's blocking transfers wait
// without a limit, and a peer that is not on the bus never answers: the bus
// drops what is sent to an application that nobody holds.
#ifndef KELMSG_TOOLS_KELMSG_IDLETIMEOUT_H_
#define KELMSG_TOOLS_KELMSG_IDLETIMEOUT_H_

#include <string>

class IdleTimeout {
 public:
  // `line` is written (with a newline) when `seconds` pass without a
  // Restart; the process then exits with status 1.  0 seconds: never.
  // One object at a time per process.
  IdleTimeout(const std::string& line, int seconds);
  ~IdleTimeout();
  IdleTimeout(const IdleTimeout&) = delete;
  IdleTimeout& operator=(const IdleTimeout&) = delete;

  // Something moved: the full time starts again.
  void Restart() const;

 private:
  int m_seconds;
};

#endif  // KELMSG_TOOLS_KELMSG_IDLETIMEOUT_H_
