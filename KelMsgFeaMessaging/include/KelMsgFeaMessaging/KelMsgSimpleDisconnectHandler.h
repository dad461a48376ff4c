// KelMsgSimpleDisconnectHandler: watches one application for its departure
// from the bus.
//
// The watched application is known by its name, or else by its process
// identifier together with its host.  Every report of a departure writes
//   "in disconnection handler, process <pid> -- app -- <app> -- host <host>
//    -- user <user>\n"
// (one line) to standard error and flushes it.  A report is the watched
// application's when its name equals the watched name byte for byte, or
// when its process identifier equals the watched one and its host equals the
// watched host in any case of ASCII letters; the user is never compared.  A
// match writes "Exit Handler -- confirm exit\n" to standard error and then,
// by behaviour:
//   e_exitProcess (the default): flushes standard error and ends the process
//     with exit(0), so exit handlers and static destructors run;
//   e_endWaitingLoop (any value other than 0): sets EndingCondition() from -1
//     to 0 and returns, which ends a bus wait that watches it.
// Nothing sets the flag back to -1; a client that waits again resets it.
//
// Use: construct; SetWatchApplication; optionally SetDisconnectBehavior;
// install with KelMsgBBCallbackManager::AssociateDisconnectHandler and switch
// reports on with KelMsgBBAPI::EnableDisconnectHandling; wait in the bus's
// loop.  Set it up on the thread that runs the bus: nothing here is locked.
#ifndef KELMSGFEAMESSAGING_KELMSGSIMPLEDISCONNECTHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGSIMPLEDISCONNECTHANDLER_H_

#include <climits>

#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgSimpleDisconnectHandler : public KelMsgBBDisconnectHandler {
 public:
  enum e_behavior : int { e_exitProcess = 0, e_endWaitingLoop = 1 };

  // Watches the application "" with no process identifier, exits on a match.
  KelMsgSimpleDisconnectHandler();
  ~KelMsgSimpleDisconnectHandler() override;

  void SetDisconnectBehavior(e_behavior behavior);
  // Watches the application named `app` (not null; kept without change of
  // case) with process identifier `pid`, on `host` (kept upper-cased).  A
  // null `host` keeps the host set before ("" on a fresh handler).
  void SetWatchApplication(const char* app, int pid, const char* host);
  // The ending-condition flag: -1 until a match under e_endWaitingLoop, then
  // 0.  The reference stays valid as long as the handler lives.
  int& EndingCondition();

  void DetectDisconnection(int pid, const char* app, const char* host,
                           const char* user) const override;

 private:
  // Process identifiers are positive; until one is set, none matches.
  static constexpr int kNoProcess = INT_MIN;

  bool IsWatchedApplication(int pid, const char* app, const char* host) const;

  KelString m_watchApp;
  mutable int m_endingCondition = -1;
  e_behavior m_behavior = e_exitProcess;
  int m_watchPid = kNoProcess;
  KelString m_watchHost;
};

#endif  // KELMSGFEAMESSAGING_KELMSGSIMPLEDISCONNECTHANDLER_H_
