// One application of the analysis suite on the bus, for the lifetime of the
// object: the application itself, and the registry of the prototypes and
// handlers the program adopts.  A program that cannot join ends with a
// message.
#ifndef KELMSG_EXAMPLES_SUITEPROCESS_H_
#define KELMSG_EXAMPLES_SUITEPROCESS_H_

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;

class SuiteProcess : public KelMsgBBApplication {
 public:
  explicit SuiteProcess(const char* application);

  // Receive messages of the prototype's type with `handler` (both adopted).
  void Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler);
  // Dispatches received messages until a handler sets `flag` to 0 (it is set
  // to -1 first).  False when `seconds` passed first.
  bool WaitFor(int& flag, int seconds) const;

 private:
  KelMsgBBCallbackManager m_registry;  // deletes what Handle adopted
};

#endif  // KELMSG_EXAMPLES_SUITEPROCESS_H_
