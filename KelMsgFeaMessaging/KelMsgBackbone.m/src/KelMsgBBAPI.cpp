#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "KelMsgWaitChore.h"

namespace {

using Clock = KelMsgWaitChore::Clock;

// The application each communicator of this process declared.
struct Declarations {
  std::mutex mutex;
  std::map<int, std::string> applications;
};

Declarations& TheDeclarations() {
  static Declarations* const declarations = new Declarations;  // outlives static objects
  return *declarations;
}

// The application to name in the envelope of what `communicatorId` sends
// instead of the process's message identifier, when that names another
// communicator's application: receivers refuse a message whose identifier
// is not its sender's application, and the identifier is process-wide while
// a process may hold several applications.  Empty: keep the identifier.
std::string OwnIdentifierInstead(int communicatorId) {
  const char* current = KelMsgBBCallbackManager::MessageID().GetUTF8();
  Declarations& declarations = TheDeclarations();
  const std::lock_guard lock(declarations.mutex);
  const auto own = declarations.applications.find(communicatorId);
  if (own == declarations.applications.end() || own->second == current)
    return {};
  for (const auto& [communicator, application] : declarations.applications) {
    if (application == current)
      return own->second;
  }
  return {};
}

// Runs `wait`, a loop of the bus given a time limit in milliseconds, until
// `watched` changes or `timeout` (milliseconds, negative: none) has passed,
// waking up whenever a chore of `communicatorId` is due.
template <class Wait>
int WaitDoingChores(int communicatorId, int timeout, const int& watched, Wait wait) {
  const int atEntry = watched;
  std::optional<Clock::time_point> deadline;
  if (timeout >= 0)
    deadline = Clock::now() + std::chrono::milliseconds(timeout);
  for (;;) {
    const std::optional<Clock::time_point> due = KelMsgWaitChore::RunDue(communicatorId);
    if (watched != atEntry)
      return KELBUS_OK;
    std::optional<Clock::time_point> until = deadline;
    if (due && (!until || *due < *until))
      until = due;
    long long slice = -1;
    if (until) {
      slice = std::max<long long>(
          0, std::chrono::ceil<std::chrono::milliseconds>(*until - Clock::now()).count());
    }
    const int result = wait(static_cast<int>(slice));
    if (result != KELBUS_ERR_TIMEOUT || (deadline && Clock::now() >= *deadline))
      return result;
  }
}

int SendPending(int communicatorId, const char* targetApplication) {
  return ::SendRequest(communicatorId, targetApplication,
                       &KelMsgBBCallbackManager::StreamPendingMessage,
                       &KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage,
                       &KelMsgBBCallbackManager::TypeOfPendingMessage);
}

}  // namespace

int KelMsgBBAPI::RegisterCommunicator(const char* name, int& communicatorId) {
  return ::RegisterCommunicator(name, &communicatorId);
}

int KelMsgBBAPI::DeclareApplicationId(int communicatorId, const char* applicationId, bool flag) {
  const int result = ::DeclareApplicationId(communicatorId, applicationId, flag ? 1 : 0);
  if (result == KELBUS_OK) {
    Declarations& declarations = TheDeclarations();
    const std::lock_guard lock(declarations.mutex);
    declarations.applications[communicatorId] = applicationId;
  }
  return result;
}

int KelMsgBBAPI::SendRequest(int communicatorId, const char* targetApplication,
                             const KelMsgBBMessage& message) {
  KelMsgBBCallbackManager::AppendMessageToSend(&message);
  const std::string own = OwnIdentifierInstead(communicatorId);
  if (own.empty())
    return SendPending(communicatorId, targetApplication);
  const std::string processWide = KelMsgBBCallbackManager::MessageID().GetUTF8();
  KelMsgBBCallbackManager::SetMessageID(own.c_str());
  const int result = SendPending(communicatorId, targetApplication);
  KelMsgBBCallbackManager::SetMessageID(processWide.c_str());
  return result;
}

int KelMsgBBAPI::EnableReceiveHandling(int communicatorId, const char* name) {
  return ::AssociateHandler(communicatorId, name, &KelMsgBBCallbackManager::HandleMessage);
}

int KelMsgBBAPI::EnableDisconnectHandling(int communicatorId, const char* name) {
  return ::AssociateDisconnectHandler(communicatorId, name,
                                      &KelMsgBBCallbackManager::Disconnection);
}

int KelMsgBBAPI::WaitingLoop(int communicatorId, int timeout, int& watched) {
  return WaitDoingChores(communicatorId, timeout, watched,
                         [&](int slice) { return ::WaitingLoop(communicatorId, slice, &watched); });
}

int KelMsgBBAPI::BBSysLoopWait(int& watched, int timeout) {
  return WaitDoingChores(KelMsgWaitChore::kEveryCommunicator, timeout, watched,
                         [&](int slice) { return ::BBSysLoopWait(&watched, slice); });
}

int KelMsgBBAPI::AssociateHandler(const KelMsgBBCallbackManager* /*manager*/) {
  return 0;
}
