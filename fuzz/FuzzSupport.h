// What every fuzz target shares: silence for the reports it provokes on
// purpose, a sink for what the library prints, and a loud stop for a
// property of the library that does not hold.
#ifndef KELMSG_FUZZ_FUZZSUPPORT_H_
#define KELMSG_FUZZ_FUZZSUPPORT_H_

#include <cstdio>
#include <cstdlib>

#include <KelMsgFeaMessaging/DovFatalError.h>

// Refused messages are the expected outcome of most inputs; their reports
// would drown libFuzzer's own output.  Call once, from LLVMFuzzerInitialize.
inline void DiscardFatalErrorReports() {
  DovSetFatalErrorSink([](const char* /*message*/, const char* /*path*/, int /*line*/) {});
}

// Where the library's prints and traces go, so that they are formatted but
// not shown.
inline FILE* DevNull() {
  static FILE* const stream = std::fopen("/dev/null", "w");
  return stream;
}

// Prints the broken property and aborts, so that libFuzzer keeps the input.
[[noreturn]] inline void FuzzPropertyFailed(const char* property, const char* file, int line) {
  std::fprintf(stderr, "property broken: %s (%s:%d)\n", property, file, line);
  std::abort();
}

#define FUZZ_EXPECT(cond) ((cond) ? void() : FuzzPropertyFailed(#cond, __FILE__, __LINE__))

#endif  // KELMSG_FUZZ_FUZZSUPPORT_H_
