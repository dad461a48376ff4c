// CommandFailure: how a subcommand gives up.  main prints
// "kelmsg <command>: <reason>" as the one line on standard error and exits
// with status 1.  A failure without a reason was already reported (the bus
// writes its own line when it cannot be reached) and adds nothing.
#ifndef KELMSG_TOOLS_KELMSG_COMMANDFAILURE_H_
#define KELMSG_TOOLS_KELMSG_COMMANDFAILURE_H_

#include <stdexcept>
#include <string>

class CommandFailure : public std::runtime_error {
 public:
  explicit CommandFailure(const std::string& reason) : std::runtime_error(reason) {}
};

#endif  // KELMSG_TOOLS_KELMSG_COMMANDFAILURE_H_
