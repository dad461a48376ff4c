#include <KelMsgFeaMessaging/strnatcmp.h>

#include <cstddef>

namespace {

int g_naturalOrder = 0;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

struct DigitRun {
  std::size_t zeros;        // leading zeros
  const char* significant;  // first digit after them
  std::size_t length;       // digits from `significant` on
};

DigitRun ScanDigits(const char* s) {
  DigitRun run{0, s, 0};
  while (run.significant[0] == '0' && IsDigit(run.significant[1])) {
    ++run.zeros;
    ++run.significant;
  }
  while (IsDigit(run.significant[run.length]))
    ++run.length;
  return run;
}

// Compares two digit runs by value without converting them, so any length
// works; equal values order by fewer leading zeros first.
int CompareRuns(const DigitRun& a, const DigitRun& b) {
  if (a.length != b.length)
    return a.length < b.length ? -1 : 1;
  for (std::size_t i = 0; i < a.length; ++i) {
    if (a.significant[i] != b.significant[i])
      return a.significant[i] < b.significant[i] ? -1 : 1;
  }
  if (a.zeros != b.zeros)
    return a.zeros < b.zeros ? -1 : 1;
  return 0;
}

}  // namespace

int strnatcmp(const char* a, const char* b) {
  while (*a != '\0' || *b != '\0') {
    if (IsDigit(*a) && IsDigit(*b)) {
      const DigitRun runA = ScanDigits(a);
      const DigitRun runB = ScanDigits(b);
      if (int order = CompareRuns(runA, runB); order != 0)
        return order;
      a = runA.significant + runA.length;
      b = runB.significant + runB.length;
      continue;
    }
    const auto ca = static_cast<unsigned char>(*a);
    const auto cb = static_cast<unsigned char>(*b);
    if (ca != cb)
      return ca < cb ? -1 : 1;
    ++a;
    ++b;
  }
  return 0;
}

int atr_getNaturalOrder() {
  return g_naturalOrder;
}

void atr_setNaturalOrder(int natural) {
  g_naturalOrder = natural;
}
