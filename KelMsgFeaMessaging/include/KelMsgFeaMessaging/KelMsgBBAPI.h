// KelMsgBBAPI: the one place where the library calls the message bus.
//
// Every operation is a pass-through that returns the bus's result unchanged
// (0 for success; see KelBus.h for the codes).  The waiting loops also run
// the library's own chores while they wait (closing received files left
// idle): they wake up when one is due, with no message needed.  SendRequest first lends the
// message to the registry as its pending message; the bus streams it before
// returning, so the caller may destroy the message right afterwards.
#ifndef KELMSGFEAMESSAGING_KELMSGBBAPI_H_
#define KELMSGFEAMESSAGING_KELMSGBBAPI_H_

class KelMsgBBMessage;
class KelMsgBBCallbackManager;

class KelMsgBBAPI {
 public:
  KelMsgBBAPI() = delete;

  // Joins the bus; `communicatorId` receives the identifier of this process's
  // communicator.
  static int RegisterCommunicator(const char* name, int& communicatorId);
  // Declares this communicator's application name; `flag` is passed as 0/1.
  static int DeclareApplicationId(int communicatorId, const char* applicationId, bool flag);
  // Sends `message` to the application `targetApplication`.
  static int SendRequest(int communicatorId, const char* targetApplication,
                         const KelMsgBBMessage& message);
  // Lets the bus deliver received messages to the registry.
  static int EnableReceiveHandling(int communicatorId, const char* name);
  // Lets the bus report departed processes to the registry.
  static int EnableDisconnectHandling(int communicatorId, const char* name);
  // Dispatches messages of this communicator until `watched` changes from
  // its value at entry; `timeout` in milliseconds, -1 for none.
  static int WaitingLoop(int communicatorId, int timeout, int& watched);
  // The same across every communicator of the process.
  static int BBSysLoopWait(int& watched, int timeout);
  // Kept for callers that still make this call; it does nothing.
  static int AssociateHandler(const KelMsgBBCallbackManager* manager);
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBAPI_H_
