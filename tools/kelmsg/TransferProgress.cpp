#include "TransferProgress.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string FormatBytes(double bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  for (; bytes >= 1024.0 && unit < 4; ++unit)
    bytes /= 1024.0;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string FormatDuration(double seconds) {
  const long whole = std::lround(seconds);
  char text[32];
  std::snprintf(text, sizeof text, "%ld:%02ld", whole / 60, whole % 60);
  return text;
}

}  // namespace

TransferProgress::TransferProgress(FILE* out, std::string label, std::int64_t size)
    : m_out(out), m_label(std::move(label)), m_size(size), m_onTerminal(isatty(fileno(out)) != 0) {}

void TransferProgress::Add(int bytes) {
  m_bytes += bytes;
  if (m_onTerminal && Clock::now() - m_lastDrawn >= kRedrawInterval)
    DrawBar();
}

void TransferProgress::Finish() {
  if (m_onTerminal) {
    DrawBar();
    std::fputc('\n', m_out);
  } else {
    std::fprintf(m_out, "%s: %s in %.1f s (%s/s)\n", m_label.c_str(),
                 FormatBytes(static_cast<double>(m_bytes)).c_str(), Seconds(),
                 FormatBytes(BytesPerSecond()).c_str());
  }
  std::fflush(m_out);
}

void TransferProgress::DrawBar() {
  m_lastDrawn = Clock::now();
  std::string line = "\r" + m_label;
  if (m_size > 0) {
    const double done = std::min(1.0, static_cast<double>(m_bytes) / static_cast<double>(m_size));
    const int filled = static_cast<int>(done * kBarWidth);
    char share[8];
    std::snprintf(share, sizeof share, "%3d%%", static_cast<int>(done * 100.0));
    line += " [" + std::string(filled, '#') + std::string(kBarWidth - filled, '.') + "] " + share;
  }
  line += "  " + FormatBytes(static_cast<double>(m_bytes));
  if (m_size >= 0)
    line += " / " + FormatBytes(static_cast<double>(m_size));
  const double rate = BytesPerSecond();
  line += "  " + FormatBytes(rate) + "/s";
  if (m_size >= 0) {
    const double left = rate > 0.0 ? static_cast<double>(m_size - m_bytes) / rate : 0.0;
    line += "  " + FormatDuration(std::max(0.0, left)) + " left";
  }
  line += "\033[K";  // clears what a longer earlier line left behind
  std::fputs(line.c_str(), m_out);
  std::fflush(m_out);
}

double TransferProgress::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - m_start).count();
}

double TransferProgress::BytesPerSecond() const {
  const double seconds = Seconds();
  return seconds > 0.0 ? static_cast<double>(m_bytes) / seconds : 0.0;
}
