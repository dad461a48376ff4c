#include "SuiteProcess.h"

#include <cstdio>
#include <cstdlib>

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelMsgBBAPI.h>
#include <KelMsgFeaMessaging/KelMsgModules.h>

SuiteProcess::SuiteProcess(const char* application) : m_application(application) {
  KelMsgModules_initializeC();
  if (KelMsgBBAPI::RegisterCommunicator(application, m_communicator) != 0 ||
      KelMsgBBAPI::DeclareApplicationId(m_communicator, application, false) != 0) {
    std::fprintf(stderr, "%s: cannot join the bus (is KELBUS_URL right?)\n", application);
    std::exit(1);
  }
  KelMsgBBCallbackManager::SetMessageID(application);
  KelMsgBBAPI::EnableReceiveHandling(m_communicator, application);
}

SuiteProcess::~SuiteProcess() {
  CloseCommunicator(m_communicator);
  KelMsgModules_finalizeC();
}

void SuiteProcess::Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, handler);
}

void SuiteProcess::WatchDepartures(const KelMsgBBDisconnectHandler* watcher) {
  KelMsgBBCallbackManager::AssociateDisconnectHandler(watcher);
  KelMsgBBAPI::EnableDisconnectHandling(m_communicator, Application());
}

void SuiteProcess::Send(const char* application, const KelMsgBBMessage& message) const {
  KelMsgBBAPI::SendRequest(m_communicator, application, message);
}

bool SuiteProcess::WaitFor(int& flag, int seconds) const {
  flag = -1;
  KelMsgBBAPI::WaitingLoop(m_communicator, seconds * 1000, flag);
  return flag == 0;
}
