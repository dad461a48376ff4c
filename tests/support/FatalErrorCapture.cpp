#include "FatalErrorCapture.h"

namespace {
std::vector<FatalErrorReport> g_reports;

void Collect(const char* message, const char* path, int line) {
  g_reports.push_back({message, path, line});
}
}  // namespace

FatalErrorCapture::FatalErrorCapture() : m_previous(DovSetFatalErrorSink(&Collect)) {
  g_reports.clear();
}

FatalErrorCapture::~FatalErrorCapture() {
  DovSetFatalErrorSink(m_previous);
  g_reports.clear();
}

const std::vector<FatalErrorReport>& FatalErrorCapture::Reports() const {
  return g_reports;
}

std::vector<std::string> FatalErrorCapture::Messages() const {
  std::vector<std::string> messages;
  for (const auto& report : g_reports)
    messages.push_back(report.message);
  return messages;
}
