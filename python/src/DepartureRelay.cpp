#include "DepartureRelay.h"

#include "Departure.h"

namespace {

std::string Text(const char* text) {
  return text != nullptr ? text : "";
}

}  // namespace

void DepartureRelay::DetectDisconnection(int pid, const char* app, const char* host,
                                         const char* user) const {
  if (m_transfers != nullptr)
    m_transfers->DetectDisconnection(pid, app, host, user);
  m_calls.Call(m_callable, Departure{pid, Text(app), Text(host), Text(user)});
}
