// PythonHandler<Value>: the registry's handler for the library type behind
// Value; hands every message received to the Python callable in `callable`
// as a Value, with the sender's identifier.  The callable stays the
// application's, which may replace it at any time.
#ifndef KELMSG_PYTHON_PYTHONHANDLER_H_
#define KELMSG_PYTHON_PYTHONHANDLER_H_

#include <string>

#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <pybind11/pybind11.h>

#include "HandlerCalls.h"

template <class Value>
class PythonHandler : public KelMsgBBMessageHandler {
 public:
  PythonHandler(HandlerCalls& calls, const pybind11::object& callable)
      : m_calls(calls), m_callable(callable) {}

  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override {
    // The registry hands a handler only messages of its own type.
    Value value = Value::From(static_cast<const typename Value::Library&>(msg));
    m_calls.Call(m_callable, std::move(value), std::string(id));
  }

 private:
  HandlerCalls& m_calls;
  const pybind11::object& m_callable;
};

#endif  // KELMSG_PYTHON_PYTHONHANDLER_H_
