#include "Session.h"

#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include "CommandFailure.h"
#include "StopSignals.h"

namespace {

// Waits are cut into slices this long so that a stop signal is noticed.
constexpr int kWaitSliceMilliseconds = 200;

// How long a look at the presence of another application may take.
constexpr int kPresenceLimitMilliseconds = KELBUS_CONNECT_SECONDS * 1000;

std::string LastBusError() {
  return KelBusLastError();
}

}  // namespace

Session::Session(const std::string& application) : m_application(application.c_str()) {
  if (m_application.Joined())
    return;
  const int result = m_application.Result();
  if (m_application.Communicator() == 0) {
    if (result == KELBUS_ERR_URL || result == KELBUS_ERR_UNREACHABLE)
      throw CommandFailure("");  // the bus has said why, in one line
    throw CommandFailure("cannot join the bus: " + LastBusError());
  }
  if (result == KELBUS_ERR_NAME_HELD)
    throw CommandFailure(application + " is already on the bus");
  throw CommandFailure("cannot join the bus as " + application + ": " + LastBusError());
}

void Session::Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, handler);
}

void Session::WatchDepartures(const KelMsgBBDisconnectHandler& watcher) {
  if (m_application.WatchDepartures(watcher) != KELBUS_OK) {
    throw CommandFailure("cannot follow departures from the bus: " + LastBusError());
  }
}

void Session::Send(const std::string& targetApplication, const KelMsgBBMessage& message) const {
  if (m_application.Send(targetApplication.c_str(), message) != KELBUS_OK) {
    throw CommandFailure("cannot send to " + targetApplication + ": " + LastBusError());
  }
}

bool Session::Absent(const std::string& application) const {
  int present = 1;
  KelBusApplicationPresent(Communicator(), application.c_str(), kPresenceLimitMilliseconds,
                           &present);
  return present == 0;
}

Session::WaitEnd Session::Wait(int& flag, std::chrono::seconds limit) const {
  const int initial = flag;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const int result = m_application.Wait(flag, kWaitSliceMilliseconds);
    if (flag != initial)
      return WaitEnd::kChanged;
    if (result != KELBUS_OK && result != KELBUS_ERR_TIMEOUT) {
      throw CommandFailure("lost the bus: " + LastBusError());
    }
    if (StopSignals::Arrived())
      return WaitEnd::kStopped;
    if (limit.count() > 0 && std::chrono::steady_clock::now() >= deadline) {
      return WaitEnd::kTimedOut;
    }
  }
}

std::string DefaultApplicationName(const std::string& command) {
  return "kelmsg-" + command + "-" + std::to_string(getpid());
}
