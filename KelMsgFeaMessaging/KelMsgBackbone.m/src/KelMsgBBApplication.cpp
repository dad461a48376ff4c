#include <KelMsgFeaMessaging/KelMsgBBApplication.h>

#include <utility>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>
#include <KelMsgFeaMessaging/KelMsgModules.h>

namespace {

// A communicator identifier that the bus never hands out.
constexpr int kNoCommunicator = 0;

}  // namespace

KelMsgBBApplication::KelMsgBBApplication(const char* name, int takeOver) : m_name(name) {
  KelMsgModules_initializeC();
  m_result = KelMsgBBAPI::RegisterCommunicator(name, m_communicator);
  if (m_result != KELBUS_OK) {
    m_communicator = kNoCommunicator;
    return;
  }
  m_result = KelMsgBBAPI::DeclareApplicationId(m_communicator, name, takeOver != 0);
  if (m_result != KELBUS_OK)
    return;
  KelMsgBBCallbackManager::SetMessageID(name);
  m_result = KelMsgBBAPI::EnableReceiveHandling(m_communicator, name);
}

KelMsgBBApplication::~KelMsgBBApplication() {
  Leave();
}

KelMsgBBApplication::KelMsgBBApplication(KelMsgBBApplication&& other) noexcept
    : m_name(std::move(other.m_name)),
      m_communicator(std::exchange(other.m_communicator, kNoCommunicator)),
      m_result(std::exchange(other.m_result, KELBUS_ERR_BAD_ID)),
      m_holdsModules(std::exchange(other.m_holdsModules, false)) {}

KelMsgBBApplication& KelMsgBBApplication::operator=(KelMsgBBApplication&& other) noexcept {
  if (this != &other) {
    Leave();
    m_name = std::move(other.m_name);
    m_communicator = std::exchange(other.m_communicator, kNoCommunicator);
    m_result = std::exchange(other.m_result, KELBUS_ERR_BAD_ID);
    m_holdsModules = std::exchange(other.m_holdsModules, false);
  }
  return *this;
}

int KelMsgBBApplication::Send(const char* target, const KelMsgBBMessage& message) const {
  return KelMsgBBAPI::SendRequest(m_communicator, target, message);
}

int KelMsgBBApplication::WatchDepartures(const KelMsgBBDisconnectHandler& watcher) const {
  KelMsgBBCallbackManager::AssociateDisconnectHandler(&watcher);
  return KelMsgBBAPI::EnableDisconnectHandling(m_communicator, Name());
}

int KelMsgBBApplication::Wait(int& flag, int timeout) const {
  return KelMsgBBAPI::WaitingLoop(m_communicator, timeout, flag);
}

void KelMsgBBApplication::Leave() {
  if (m_communicator != kNoCommunicator)
    CloseCommunicator(std::exchange(m_communicator, kNoCommunicator));
  if (std::exchange(m_holdsModules, false))
    KelMsgModules_finalizeC();
}
