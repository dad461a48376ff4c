#include "KelMsgCheck.h"

#include <cstdio>
#include <cstdlib>

#include <KelMsgFeaMessaging/DovFatalError.h>

namespace {
thread_local bool t_refused = false;
}  // namespace

void KelMsgContractFailed(const char* text, const char* path, int line) {
  DovFatalError(text, nullptr, nullptr, nullptr, path, line);
  std::fflush(stderr);
  std::abort();
}

bool KelMsgPeerCheckFailed(const char* text, const char* path, int line) {
  DovFatalError(text, nullptr, nullptr, nullptr, path, line);
  t_refused = true;
  return false;
}

void KelMsgClearRefusal() noexcept {
  t_refused = false;
}

bool KelMsgWasRefused() noexcept {
  return t_refused;
}
