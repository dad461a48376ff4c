#include "LastError.h"

#include <utility>

namespace kelbus {
namespace {
thread_local std::string t_lastError;
}  // namespace

KelBusResult Fail(KelBusResult result, std::string text) {
  t_lastError = std::move(text);
  return result;
}

void ClearLastError() {
  t_lastError.clear();
}

const char* LastErrorText() {
  return t_lastError.c_str();
}

}  // namespace kelbus
