#include "SuiteProcess.h"

#include <cstdio>
#include <cstdlib>

SuiteProcess::SuiteProcess(const char* application) : KelMsgBBApplication(application) {
  if (!Joined()) {
    std::fprintf(stderr, "%s: cannot join the bus (is KELBUS_URL right?): %s\n", application,
                 KelBusLastError());
    std::exit(1);
  }
}

void SuiteProcess::Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, handler);
}

bool SuiteProcess::WaitFor(int& flag, int seconds) const {
  flag = -1;
  Wait(flag, seconds * 1000);
  return flag == 0;
}
