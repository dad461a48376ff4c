#include "StopSignals.h"

#include <csignal>

namespace {

volatile std::sig_atomic_t g_arrived = 0;

void Raise(int /*signal*/) {
  g_arrived = 1;
}

}  // namespace

namespace StopSignals {

void Catch() {
  struct sigaction action {};
  action.sa_handler = Raise;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Arrived() {
  return g_arrived != 0;
}

}  // namespace StopSignals
