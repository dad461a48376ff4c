// One application of the analysis suite on the bus, for the lifetime of the
// object: starts the library, joins the bus under the application's name,
// uses that name as the message identifier (the file transfer relies on it),
// and takes everything down again in the destructor, which tells the other
// applications that this one has left.
#ifndef KELMSG_EXAMPLES_SUITEPROCESS_H_
#define KELMSG_EXAMPLES_SUITEPROCESS_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;
class KelMsgBBDisconnectHandler;

class SuiteProcess {
 public:
  // Ends the program with a message when the bus cannot be joined.
  explicit SuiteProcess(const char* application);
  ~SuiteProcess();
  SuiteProcess(const SuiteProcess&) = delete;
  SuiteProcess& operator=(const SuiteProcess&) = delete;

  int Communicator() const { return m_communicator; }
  const char* Application() const { return m_application.c_str(); }

  // Receive messages of the prototype's type with `handler` (both adopted).
  void Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler);
  // Report departures of other applications to `watcher` (lent).
  void WatchDepartures(const KelMsgBBDisconnectHandler* watcher);
  void Send(const char* application, const KelMsgBBMessage& message) const;
  // Dispatches received messages until a handler sets `flag` to 0 (it is set
  // to -1 first).  False when `seconds` passed first.
  bool WaitFor(int& flag, int seconds) const;

 private:
  std::string m_application;
  int m_communicator = -1;
  KelMsgBBCallbackManager m_registry;  // deletes what Handle adopted
};

#endif  // KELMSG_EXAMPLES_SUITEPROCESS_H_
