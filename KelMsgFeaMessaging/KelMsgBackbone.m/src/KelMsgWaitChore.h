// KelMsgWaitChore: work that the library's waiting loops do on their own
// while a program waits, such as closing received files left idle.
//
// A chore belongs to one communicator and runs as its handlers do: inside a
// waiting loop of KelMsgBBAPI for that communicator (WaitingLoop, or
// BBSysLoopWait for every one), on the waiting thread, between messages.  It
// does what is due and tells when it is next due; the loop wakes up then, so
// a chore needs no message to come.  A chore may end the wait by changing
// the watched value.  Like the rest of the library, chores are made, ended
// and run on the thread that calls the bus, so nothing here is locked.
#ifndef KELMSGFEAMESSAGING_KELMSGWAITCHORE_H_
#define KELMSGFEAMESSAGING_KELMSGWAITCHORE_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

class KelMsgWaitChore {
 public:
  using Clock = std::chrono::steady_clock;
  // Does what is due; returns when it is next due, nothing while nothing is
  // pending.
  using Work = std::function<std::optional<Clock::time_point>()>;
  static constexpr int kEveryCommunicator = 0;

  // The chore runs from now until it is destroyed.
  KelMsgWaitChore(int communicatorId, Work work);
  ~KelMsgWaitChore();
  KelMsgWaitChore(const KelMsgWaitChore&) = delete;
  KelMsgWaitChore& operator=(const KelMsgWaitChore&) = delete;

  // Runs the chores of `communicatorId` (kEveryCommunicator: all of them);
  // returns the earliest moment that one of them is next due.
  static std::optional<Clock::time_point> RunDue(int communicatorId);

 private:
  std::uint64_t m_key;
};

#endif  // KELMSGFEAMESSAGING_KELMSGWAITCHORE_H_
