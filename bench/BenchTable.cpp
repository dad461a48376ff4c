#include "BenchTable.h"

#include <cstdio>

namespace {

std::string Format(double value, BenchUnit unit) {
  char text[64];
  switch (unit) {
    case BenchUnit::kBytesPerSecond:
      std::snprintf(text, sizeof text, "%.1f MiB/s", value / (1024.0 * 1024.0));
      break;
    case BenchUnit::kBytes:
      std::snprintf(text, sizeof text, "%.1f MiB", value / (1024.0 * 1024.0));
      break;
    case BenchUnit::kSeconds:
      if (value < 1e-6) {
        std::snprintf(text, sizeof text, "%.1f ns", value * 1e9);
      } else if (value < 1e-3) {
        std::snprintf(text, sizeof text, "%.2f us", value * 1e6);
      } else if (value < 1) {
        std::snprintf(text, sizeof text, "%.2f ms", value * 1e3);
      } else {
        std::snprintf(text, sizeof text, "%.2f s", value);
      }
      break;
  }
  return text;
}

std::string Goal(const BenchRow& row, double ratio) {
  if (row.goal == BenchGoal::kNone)
    return "";
  char text[64];
  if (row.goal == BenchGoal::kFigureBelow) {
    std::snprintf(text, sizeof text, "figure < %s: %s", Format(row.goalRatio, row.unit).c_str(),
                  row.figure < row.goalRatio ? "met" : "MISSED");
    return text;
  }
  const bool met = row.goal == BenchGoal::kAtMost ? ratio <= row.goalRatio : ratio >= row.goalRatio;
  std::snprintf(text, sizeof text, "%s %.2f: %s",
                row.goal == BenchGoal::kAtMost ? "<=" : ">=", row.goalRatio,
                met ? "met" : "MISSED");
  return text;
}

}  // namespace

void PrintBenchRow(const BenchRow& row) {
  const double ratio = row.baselineFigure != 0 ? row.figure / row.baselineFigure : 0;
  std::printf("| %s | %s | %s | %s | %.3g | %s |\n", row.what.c_str(),
              Format(row.figure, row.unit).c_str(), row.baseline.c_str(),
              Format(row.baselineFigure, row.unit).c_str(), ratio, Goal(row, ratio).c_str());
  std::fflush(stdout);
}
