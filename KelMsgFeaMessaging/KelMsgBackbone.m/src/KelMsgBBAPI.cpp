#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "KelMsgWaitChore.h"

namespace {

using Clock = KelMsgWaitChore::Clock;

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

}  // namespace

int KelMsgBBAPI::RegisterCommunicator(const char* name, int& communicatorId) {
  return ::RegisterCommunicator(name, &communicatorId);
}

int KelMsgBBAPI::DeclareApplicationId(int communicatorId, const char* applicationId, bool flag) {
  return ::DeclareApplicationId(communicatorId, applicationId, flag ? 1 : 0);
}

int KelMsgBBAPI::SendRequest(int communicatorId, const char* targetApplication,
                             const KelMsgBBMessage& message) {
  KelMsgBBCallbackManager::AppendMessageToSend(&message);
  return ::SendRequest(communicatorId, targetApplication,
                       &KelMsgBBCallbackManager::StreamPendingMessage,
                       &KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage,
                       &KelMsgBBCallbackManager::TypeOfPendingMessage);
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
