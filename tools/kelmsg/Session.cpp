#include "Session.h"

#include <unistd.h>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgModules.h>

#include "CommandFailure.h"
#include "StopSignals.h"

namespace {

// Waits are cut into slices this long so that a stop signal is noticed.
constexpr int kWaitSliceMilliseconds = 200;

std::string LastBusError() {
  return KelBusLastError();
}

}  // namespace

Session::LibraryModules::LibraryModules() {
  KelMsgModules_initializeC();
}

Session::LibraryModules::~LibraryModules() {
  KelMsgModules_finalizeC();
}

Session::Session(const std::string& application) : m_application(application) {
  const int registered = KelMsgBBAPI::RegisterCommunicator(application.c_str(), m_communicator);
  if (registered == KELBUS_ERR_URL || registered == KELBUS_ERR_UNREACHABLE) {
    throw CommandFailure("");  // the bus has said why, in one line
  }
  if (registered != KELBUS_OK)
    throw CommandFailure("cannot join the bus: " + LastBusError());

  const int declared =
      KelMsgBBAPI::DeclareApplicationId(m_communicator, application.c_str(), false);
  if (declared != KELBUS_OK) {
    const std::string reason =
        declared == KELBUS_ERR_NAME_HELD
            ? application + " is already on the bus"
            : "cannot join the bus as " + application + ": " + LastBusError();
    CloseCommunicator(m_communicator);
    throw CommandFailure(reason);
  }
  KelMsgBBCallbackManager::SetMessageID(application.c_str());
  KelMsgBBAPI::EnableReceiveHandling(m_communicator, application.c_str());
}

Session::~Session() {
  CloseCommunicator(m_communicator);
}

void Session::Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, handler);
}

void Session::WatchDepartures(const KelMsgBBDisconnectHandler& watcher) {
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&watcher);
  if (KelMsgBBAPI::EnableDisconnectHandling(m_communicator, m_application.c_str()) != KELBUS_OK) {
    throw CommandFailure("cannot follow departures from the bus: " + LastBusError());
  }
}

void Session::Send(const std::string& targetApplication, const KelMsgBBMessage& message) const {
  if (KelMsgBBAPI::SendRequest(m_communicator, targetApplication.c_str(), message) != KELBUS_OK) {
    throw CommandFailure("cannot send to " + targetApplication + ": " + LastBusError());
  }
}

Session::WaitEnd Session::Wait(int& flag, std::chrono::seconds limit) const {
  const int initial = flag;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  for (;;) {
    const int result = KelMsgBBAPI::WaitingLoop(m_communicator, kWaitSliceMilliseconds, flag);
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
