// Session: a subcommand's application on the bus (KelMsgBBApplication, whose
// name a live process may not hold already), with failures turned into
// CommandFailure and the registry of what the subcommand adopted.
// Destruction leaves the bus first, then deletes every adopted prototype and
// handler.
//
// One session per process: the registry it fills is process-wide.
#ifndef KELMSG_TOOLS_KELMSG_SESSION_H_
#define KELMSG_TOOLS_KELMSG_SESSION_H_

#include <chrono>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBApplication.h>
#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;
class KelMsgBBDisconnectHandler;

class Session {
 public:
  enum class WaitEnd { kChanged, kTimedOut, kStopped };

  // Throws CommandFailure when the bus cannot be joined under `application`.
  explicit Session(const std::string& application);

  const char* Application() const { return m_application.Name(); }
  int Communicator() const { return m_application.Communicator(); }

  // Receives the messages of the prototype's type with `handler`; both are
  // adopted.
  void Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler);
  // Reports every application that leaves the bus to `watcher`, which must
  // outlive the session.
  void WatchDepartures(const KelMsgBBDisconnectHandler& watcher);
  // Throws CommandFailure when the bus does not take the message.
  void Send(const std::string& targetApplication, const KelMsgBBMessage& message) const;
  // True only when the bus says that no live process holds `application`;
  // false as well when the bus cannot tell.
  bool Absent(const std::string& application) const;
  // Runs the handlers until one changes `flag`, `limit` has passed (zero:
  // no limit) or a stop signal has arrived (see StopSignals).  Throws
  // CommandFailure when the connection to the bus is lost for good.
  WaitEnd Wait(int& flag, std::chrono::seconds limit) const;

 private:
  KelMsgBBCallbackManager m_registry;  // deletes what Handle adopted
  KelMsgBBApplication m_application;
};

// "kelmsg-<command>-<process id>": the application name of a subcommand
// that is not told which name to use.
std::string DefaultApplicationName(const std::string& command);

#endif  // KELMSG_TOOLS_KELMSG_SESSION_H_
