// An arbitrary list of ports, as a client may pass on from a user:
// parsing it and walking the candidates it yields.
//
// Properties: a finder without ranges hands out 0 at every call; a finder
// with ranges never does, and never hands out a port below 1.  Probing
// sockets (FindOpenPort) is left out: it says nothing about the text.
#include <cstdint>

#include <KelMsgFeaMessaging/DovUnicodeString.h>
#include <KelMsgFeaMessaging/KelMsgPortFinder.h>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const DovUnicodeString list(reinterpret_cast<const char*>(data), static_cast<int>(size));
  KelMsgPortFinder finder(list);
  const bool hasRanges = finder.GetPort() != 0;
  // More than one cycle through the ranges of most inputs.
  for (int i = 1; i < 300; ++i)
    FUZZ_EXPECT(hasRanges ? finder.GetPort() >= 1 : finder.GetPort() == 0);
  return 0;
}
