#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

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
  return ::WaitingLoop(communicatorId, timeout, &watched);
}

int KelMsgBBAPI::BBSysLoopWait(int& watched, int timeout) {
  return ::BBSysLoopWait(&watched, timeout);
}

int KelMsgBBAPI::AssociateHandler(const KelMsgBBCallbackManager* /*manager*/) {
  return 0;
}
