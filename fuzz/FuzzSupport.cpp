#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>

#include <KelMsgFeaMessaging/DovFatalError.h>

namespace {
void Discard(const char* /*message*/, const char* /*path*/, int /*line*/) {}
}  // namespace

void DiscardFatalErrorReports() {
  DovSetFatalErrorSink(&Discard);
}

void FuzzPropertyFailed(const char* property, const char* file, int line) {
  std::fprintf(stderr, "property broken: %s (%s:%d)\n", property, file, line);
  std::fflush(stderr);
  std::abort();
}
