// HandlerCalls: how the bus's callbacks, which run on the thread that waits
// with the GIL released, call Python.  Each call takes the GIL, counts as a
// dispatch (the count is what a wait watches) and keeps a failing handler
// from hurting the bus: an Exception is reported through
// sys.unraisablehook and dispatching goes on; an interruption
// (KeyboardInterrupt, SystemExit) is kept, ends the wait, and is raised by
// the caller of the wait once the library has returned.
#ifndef KELMSG_PYTHON_HANDLERCALLS_H_
#define KELMSG_PYTHON_HANDLERCALLS_H_

#include <optional>
#include <utility>

#include <pybind11/pybind11.h>

class HandlerCalls {
 public:
  // Calls `callable(args...)` unless it is None; reports name the callable.
  template <class... Args>
  void Call(const pybind11::object& callable, Args&&... args) {
    pybind11::gil_scoped_acquire withGil;
    ++m_dispatches;
    // Ours for the call, even if the handler replaces itself.
    const pybind11::object handler = callable;
    if (handler.is_none())
      return;
    try {
      handler(std::forward<Args>(args)...);
    } catch (pybind11::error_already_set& failure) {
      Keep(failure, handler);
    } catch (const std::exception& failure) {
      Report(failure, handler);
    }
  }

  // What a wait watches: it changes with every dispatch.
  int& Dispatches() { return m_dispatches; }
  bool Interrupted() const { return m_interruption.has_value(); }
  // Raises a kept interruption, if any; with the GIL.
  void RaiseInterruption();

 private:
  void Keep(pybind11::error_already_set& failure, const pybind11::object& handler);
  static void Report(const std::exception& failure, const pybind11::object& handler);

  int m_dispatches = 0;
  std::optional<pybind11::error_already_set> m_interruption;
};

#endif  // KELMSG_PYTHON_HANDLERCALLS_H_
