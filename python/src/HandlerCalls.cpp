#include "HandlerCalls.h"

namespace py = pybind11;

void HandlerCalls::RaiseInterruption() {
  if (!m_interruption)
    return;
  py::error_already_set interruption = std::move(*m_interruption);
  m_interruption.reset();
  throw interruption;
}

void HandlerCalls::Keep(py::error_already_set& failure, const py::object& handler) {
  if (failure.matches(PyExc_Exception)) {
    failure.discard_as_unraisable(handler);
    return;
  }
  if (!m_interruption)
    m_interruption = std::move(failure);
}

void HandlerCalls::Report(const std::exception& failure, const py::object& handler) {
  PyErr_SetString(PyExc_RuntimeError, failure.what());
  py::error_already_set error;
  error.discard_as_unraisable(handler);
}
