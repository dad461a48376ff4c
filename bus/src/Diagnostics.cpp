#include "Diagnostics.h"

#include <KelMsgFeaMessaging/KelBus.h>

#include <atomic>
#include <cstdio>

namespace kelbus {
namespace {

void WriteToStandardError(const char* line) {
  std::fprintf(stderr, "%s\n", line);
  std::fflush(stderr);
}

std::atomic<KelBusDiagnosticSink> g_sink{&WriteToStandardError};

}  // namespace

void Diagnose(const std::string& line) {
  g_sink.load()(line.c_str());
}

}  // namespace kelbus

KelBusDiagnosticSink KelBusSetDiagnosticSink(KelBusDiagnosticSink sink) {
  return kelbus::g_sink.exchange(sink != nullptr ? sink : &kelbus::WriteToStandardError);
}
