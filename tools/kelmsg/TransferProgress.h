// TransferProgress: what a user sees of one file transfer.  On a terminal, a
// progress bar redrawn as chunks pass: bytes so far, rate and, when the size
// of the file is known, the share done and the time left.  Elsewhere (a pipe,
// a file), one summary line once the transfer is over.
#ifndef KELMSG_TOOLS_KELMSG_TRANSFERPROGRESS_H_
#define KELMSG_TOOLS_KELMSG_TRANSFERPROGRESS_H_

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

class TransferProgress {
 public:
  static constexpr std::int64_t kUnknownSize = -1;

  // `label` names the transfer ("model.inp -> solver:deck.inp"); `size` is
  // the file's size in bytes, or kUnknownSize.  `out` is not owned.
  TransferProgress(FILE* out, std::string label, std::int64_t size);

  // One more chunk of `bytes` has passed.
  void Add(int bytes);
  // Shows the final state: the bar's last form, or the summary line.
  void Finish();
  std::int64_t Bytes() const { return m_bytes; }

 private:
  using Clock = std::chrono::steady_clock;

  void DrawBar();
  double Seconds() const;
  double BytesPerSecond() const;

  FILE* m_out;
  std::string m_label;
  std::int64_t m_size;
  bool m_onTerminal;
  std::int64_t m_bytes = 0;
  Clock::time_point m_start = Clock::now();
  Clock::time_point m_lastDrawn;
};

#endif  // KELMSG_TOOLS_KELMSG_TRANSFERPROGRESS_H_
