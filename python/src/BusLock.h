// BusLock: the library is driven from one thread at a time (its registry and
// the message being sent are process-wide and unlocked), while Python lets
// any thread call the module.  Every call into the library takes this
// process-wide lock with the GIL released, so that a thread holding the lock
// can always get the GIL back for a Python handler; the thread that waits
// on the bus may take it again from inside a handler.
#ifndef KELMSG_PYTHON_BUSLOCK_H_
#define KELMSG_PYTHON_BUSLOCK_H_

#include <mutex>
#include <utility>

#include <pybind11/pybind11.h>

class BusLock {
 public:
  BusLock() = delete;

  // Runs `call` without the GIL and under the lock; returns what it returns.
  template <class Call>
  static auto Run(Call&& call) {
    pybind11::gil_scoped_release withoutGil;
    std::lock_guard<std::recursive_mutex> lock(Mutex());
    return std::forward<Call>(call)();
  }

 private:
  static std::recursive_mutex& Mutex();
};

#endif  // KELMSG_PYTHON_BUSLOCK_H_
