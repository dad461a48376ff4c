#include "PortList.h"

#include <KelMsgFeaMessaging/DovUnicodeString.h>

#include "CommandFailure.h"

KelMsgPortFinder PortFinderFor(const std::string& ports) {
  KelMsgPortFinder finder{DovUnicodeString(ports.c_str())};
  // GetPort moves the finder on, so ask a copy.
  if (KelMsgPortFinder(finder).GetPort() == 0) {
    throw CommandFailure("no port in the list \"" + ports + "\"");
  }
  return finder;
}
