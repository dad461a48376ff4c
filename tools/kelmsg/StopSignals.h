// Ctrl-C and SIGTERM stop the subcommands that run until they are told to:
// the signal only raises a flag, which their waits look at between slices.
#ifndef KELMSG_TOOLS_KELMSG_STOPSIGNALS_H_
#define KELMSG_TOOLS_KELMSG_STOPSIGNALS_H_

namespace StopSignals {

// From now on SIGINT and SIGTERM raise the flag instead of ending the process.
void Catch();
// True once one of them has arrived.
bool Arrived();

}  // namespace StopSignals

#endif  // KELMSG_TOOLS_KELMSG_STOPSIGNALS_H_
