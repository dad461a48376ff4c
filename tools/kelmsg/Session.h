// Session: this process on the bus as one application, for the lifetime of
// the object.
//
// Construction starts the library, registers a communicator with the bus
// that KELBUS_URL names, declares the application (a name that a live
// process holds is refused), makes the name the message identifier, as the
// file transfer requires, and switches receiving on.  Destruction closes the
// communicator, which tells the other applications that this one has left,
// deletes every adopted prototype and handler, and shuts the library down.
//
// One session per process: the registry it fills is process-wide.
#ifndef KELMSG_TOOLS_KELMSG_SESSION_H_
#define KELMSG_TOOLS_KELMSG_SESSION_H_

#include <chrono>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;
class KelMsgBBDisconnectHandler;

class Session {
 public:
  enum class WaitEnd { kChanged, kTimedOut, kStopped };

  // Throws CommandFailure when the bus cannot be joined under `application`.
  explicit Session(const std::string& application);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  const std::string& Application() const { return m_application; }
  int Communicator() const { return m_communicator; }

  // Receives the messages of the prototype's type with `handler`; both are
  // adopted.
  void Handle(KelMsgBBMessage* prototype, KelMsgBBMessageHandler* handler);
  // Reports every application that leaves the bus to `watcher`, which must
  // outlive the session.
  void WatchDepartures(const KelMsgBBDisconnectHandler& watcher);
  // Throws CommandFailure when the bus does not take the message.
  void Send(const std::string& targetApplication, const KelMsgBBMessage& message) const;
  // Runs the handlers until one changes `flag`, `limit` has passed (zero:
  // no limit) or a stop signal has arrived (see StopSignals).  Throws
  // CommandFailure when the connection to the bus is lost for good.
  WaitEnd Wait(int& flag, std::chrono::seconds limit) const;

 private:
  // Brings the library up first and takes it down last.
  struct LibraryModules {
    LibraryModules();
    ~LibraryModules();
  };

  LibraryModules m_modules;
  std::string m_application;
  int m_communicator = 0;
  KelMsgBBCallbackManager m_registry;  // deletes what Handle adopted
};

// "kelmsg-<command>-<process id>": the application name of a subcommand
// that is not told which name to use.
std::string DefaultApplicationName(const std::string& command);

#endif  // KELMSG_TOOLS_KELMSG_SESSION_H_
