// What every fuzz target shares: silence for the reports it provokes on
// purpose, and a loud stop for a property of the library that does not hold.
#ifndef KELMSG_FUZZ_FUZZSUPPORT_H_
#define KELMSG_FUZZ_FUZZSUPPORT_H_

// Refused messages are the expected outcome of most inputs; their reports
// would drown libFuzzer's own output.  Call once, from LLVMFuzzerInitialize.
void DiscardFatalErrorReports();

// Prints the broken property and aborts, so that libFuzzer keeps the input.
[[noreturn]] void FuzzPropertyFailed(const char* property, const char* file, int line);

#define FUZZ_EXPECT(cond)                            \
  do {                                               \
    if (!(cond))                                     \
      FuzzPropertyFailed(#cond, __FILE__, __LINE__); \
  } while (0)

#endif  // KELMSG_FUZZ_FUZZSUPPORT_H_
