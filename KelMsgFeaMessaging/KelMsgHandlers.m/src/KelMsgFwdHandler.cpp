#include <KelMsgFeaMessaging/KelMsgFwdHandler.h>

#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

KelMsgFwdHandler::KelMsgFwdHandler(const KelString& targetApplication, int communicatorId)
    : m_targetApplication(targetApplication), m_communicatorId(communicatorId) {}

KelMsgFwdHandler::~KelMsgFwdHandler() = default;

void KelMsgFwdHandler::SetEcho(bool echo, FILE* stream) {
  m_echo = echo;
  m_echoStream = stream;
}

void KelMsgFwdHandler::HandleMessage(const KelMsgBBMessage& msg, const char* /*id*/) {
  // The registry's clone is sent as it is: the bus streams it before
  // SendRequest returns, and the registry deletes it only after this call.
  KelMsgBBAPI::SendRequest(m_communicatorId, m_targetApplication.GetUTF8(), msg);
  if (m_echo && m_echoStream != nullptr)
    msg.Print(m_echoStream, nullptr);
}
