// Everything the bus keeps for one process: the open communicators, the
// dispatch queue, and the lock that lets only one callback run at a time.
//
// A forked child starts with a fresh state: what it inherited belongs to
// the parent's threads and is never touched again (only its sockets are
// closed, so that the broker still sees the parent leave).  At process exit
// every open communicator is closed, which publishes its departure record.
#ifndef KELBUS_SRC_BUSSTATE_H_
#define KELBUS_SRC_BUSSTATE_H_

#include <map>
#include <memory>
#include <mutex>

#include "Communicator.h"
#include "DispatchQueue.h"

namespace kelbus {

class BusState {
 public:
  // The state of the calling process.
  static BusState& Current();

  DispatchQueue& Queue() { return m_queue; }
  std::recursive_mutex& CallbackMutex() { return m_callbackMutex; }

  int NewId();
  void Add(std::shared_ptr<Communicator> communicator);
  std::shared_ptr<Communicator> Find(int id) const;
  std::shared_ptr<Communicator> Remove(int id);
  bool HasCommunicators() const;

 private:
  friend class ProcessBus;

  explicit BusState(BusState* inherited) : m_inherited(inherited) {}
  void CloseAll();
  void AbandonAfterFork();

  // Kept so that what a child inherited stays reachable; never used.
  [[maybe_unused]] BusState* const m_inherited;
  DispatchQueue m_queue;
  std::recursive_mutex m_callbackMutex;
  mutable std::mutex m_tableMutex;
  std::map<int, std::shared_ptr<Communicator>> m_communicators;
  int m_lastId = 0;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSSTATE_H_
