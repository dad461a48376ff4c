// KelMsgPortFinder: finds a free TCP port in a list of ports.
//
// The list is a text of single ports and low-high ranges, separated by
// commas, for example "5000,6000-6010".  Each port is a decimal number of
// at least 1, read to its end (leading white space and a sign are allowed;
// anything after the digits is not); an item that does not read, or whose
// high port lies below its low port, is skipped without a report.  Within an
// item only the first two "-"-separated numbers count ("1-5-9" is 1 to 5),
// and runs of separators count as one ("1,,2" is 1 and 2; "-3" is 3).
//
// Candidates are handed out in the order of the list, every port of
// every range in turn, and then again from the start, without end; ranges are
// neither sorted nor merged.  The position lives in the object: each call goes
// on after the last candidate handed out by either operation.
//
// A finder belongs to one thread.  Two processes that search the same ranges
// at once may both be told that one port is free; the one that takes it
// second fails when it opens its own socket.
#ifndef KELMSGFEAMESSAGING_KELMSGPORTFINDER_H_
#define KELMSGFEAMESSAGING_KELMSGPORTFINDER_H_

#include <cstdint>
#include <utility>
#include <vector>

class DovUnicodeString;

class KelMsgPortFinder {
 public:
  // Parses `portList`; an empty or wholly invalid list gives no range.
  explicit KelMsgPortFinder(const DovUnicodeString& portList);

  // The next candidate port; 0, without moving, when there is no range.
  int GetPort();
  // Probes candidates, from the next one on, with a listening socket on all
  // interfaces, and returns the first port that could be taken; the probing
  // socket is closed again before the call returns, so the caller takes the
  // port with a socket of its own.  Returns 0 when one full cycle of
  // candidates (at most 65,536 probes) finds nothing, and also when a
  // candidate after the first reaches a multiple of 65,536, since ports are
  // 16-bit numbers.  Port 65535 is never returned.  With no range, one
  // probe of port 0 returns a free port that the system chose.
  int FindOpenPort();

 private:
  // Probes that cover every candidate once, at most 65,536; 1 with no range.
  std::uint64_t ProbesPerSearch() const;

  std::vector<std::pair<int, int>> m_ranges;  // (low, high), 1 <= low <= high
  std::uint64_t m_rangeIndex = 0;             // range of the last candidate
  int m_port = 0;                             // last candidate handed out
};

#endif  // KELMSGFEAMESSAGING_KELMSGPORTFINDER_H_
