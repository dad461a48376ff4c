// KelMsgBBApplication: this process on the bus as one application, for the
// lifetime of the object.
//
// Joining brings the library's modules up (reference-counted, so several
// applications may live in one process), registers a communicator with the
// bus that KELBUS_URL names, declares the application's name, makes that name
// the registry's message identifier (the file transfer relies on it) and
// switches receiving on.  Leaving closes the communicator, which tells the
// other applications that this one has gone, and takes the modules down.
// Nothing throws: Result() tells whether the join worked, and the wrappers
// below return the bus's results (KelBus.h).
//
//   KelMsgBBApplication solver("solver");
//   if (!solver.Joined()) { report KelBusLastError(); }
//   KelMsgBBCallbackManager::AdoptPrototypeAndHandler(prototype, handler);
//   solver.Wait(done, -1);
//
// Ownership: the object owns its communicator and its share of the modules;
// it owns nothing of the registry, whose prototypes and handlers belong to
// whoever keeps a KelMsgBBCallbackManager object.
// Threading: use an object from one thread at a time; the registry it feeds
// is process-wide and unlocked, so its handlers run on the thread that waits.
#ifndef KELMSGFEAMESSAGING_KELMSGBBAPPLICATION_H_
#define KELMSGFEAMESSAGING_KELMSGBBAPPLICATION_H_

#include <KelMsgFeaMessaging/KelBus.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgBBMessage;
class KelMsgBBDisconnectHandler;

class KelMsgBBApplication {
 public:
  // Joins as `name`.  `takeOver` is DeclareApplicationId's flag: 0 refuses a
  // name that a live process holds, 1 takes it over.
  explicit KelMsgBBApplication(const char* name, int takeOver = 0);
  ~KelMsgBBApplication();
  KelMsgBBApplication(KelMsgBBApplication&& other) noexcept;
  KelMsgBBApplication& operator=(KelMsgBBApplication&& other) noexcept;
  KelMsgBBApplication(const KelMsgBBApplication&) = delete;
  KelMsgBBApplication& operator=(const KelMsgBBApplication&) = delete;

  // KELBUS_OK once joined, else the result of the bus call that stopped the
  // join; KelBusLastError tells why until this thread's next bus call.  A
  // communicator that could not declare the name stays open, unused, until
  // the object goes.
  int Result() const { return m_result; }
  bool Joined() const { return m_result == KELBUS_OK; }
  // 0 when the registration failed or the object was moved from.
  int Communicator() const { return m_communicator; }
  const char* Name() const { return m_name.GetUTF8(); }

  // Sends `message` to the application `target`.
  int Send(const char* target, const KelMsgBBMessage& message) const;
  // Reports every application that leaves the bus to `watcher`, the
  // registry's one disconnect handler from now on; it must outlive the
  // reports.
  int WatchDepartures(const KelMsgBBDisconnectHandler& watcher) const;
  // Runs this application's handlers until one changes `flag`, or for at
  // most `timeout` milliseconds (negative: no limit).
  int Wait(int& flag, int timeout) const;

 private:
  void Leave();

  KelString m_name;
  int m_communicator = 0;
  int m_result;
  bool m_holdsModules = true;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBAPPLICATION_H_
