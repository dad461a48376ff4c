#include <KelMsgFeaMessaging/DovFatalError.h>

#include <cstdio>
#include <cstdlib>

namespace {
DovFatalErrorSink g_sink = nullptr;
}  // namespace

void DovFatalError(const char* message, const void* /*unused1*/, const void* /*unused2*/,
                   const void* /*unused3*/, const char* path, int line) {
  if (g_sink != nullptr) {
    g_sink(message, path, line);
    return;
  }
  std::fprintf(stderr, "%s -- %s, line %d\n", message, path, line);
  std::fflush(stderr);
}

void DovContractFailed(const char* message, const char* path, int line) {
  DovFatalError(message, nullptr, nullptr, nullptr, path, line);
  std::fflush(stderr);
  std::abort();
}

DovFatalErrorSink DovSetFatalErrorSink(DovFatalErrorSink sink) {
  DovFatalErrorSink previous = g_sink;
  g_sink = sink;
  return previous;
}
