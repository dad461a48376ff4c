// The port lists that `bus` and `find-port` take, such as "5000,6000-6010".
#ifndef KELMSG_TOOLS_KELMSG_PORTLIST_H_
#define KELMSG_TOOLS_KELMSG_PORTLIST_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgPortFinder.h>

// A finder of the free ports of `ports`.  Throws CommandFailure when the list
// names no port at all: the finder would then take whatever port the system
// chooses, which from a command line is a mistake, not a wish.
KelMsgPortFinder PortFinderFor(const std::string& ports);

#endif  // KELMSG_TOOLS_KELMSG_PORTLIST_H_
