#include "KelMsgCheck.h"

namespace {
thread_local bool t_refused = false;
}  // namespace

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
