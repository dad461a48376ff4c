// The one table that every benchmark program writes into: each row is a
// figure measured in this run beside the baseline measured in the same run,
// their ratio, and the goal the ratio is held to when there is one.
//
// Programs print rows only; scripts/bench.sh prints the table's header once
// and the rows of every program under it.
#ifndef KELMSG_BENCH_BENCHTABLE_H_
#define KELMSG_BENCH_BENCHTABLE_H_

#include <string>

enum class BenchUnit {
  kBytesPerSecond,  // printed in MiB/s
  kSeconds,         // printed in ns, us, ms or s
  kBytes,           // printed in MiB
};

// Which way a ratio must lie to meet its goal, or, for kFigureBelow, the
// figure itself (a limit in the figure's unit).
enum class BenchGoal { kNone, kAtMost, kAtLeast, kFigureBelow };

struct BenchRow {
  std::string what;
  double figure = 0;
  std::string baseline;
  double baselineFigure = 0;  // same unit as `figure`
  BenchUnit unit = BenchUnit::kSeconds;
  BenchGoal goal = BenchGoal::kNone;
  double goalRatio = 0;  // figure / baselineFigure, or the figure, is compared with this
};

// Writes the row as one line of a Markdown table.
void PrintBenchRow(const BenchRow& row);

#endif  // KELMSG_BENCH_BENCHTABLE_H_
