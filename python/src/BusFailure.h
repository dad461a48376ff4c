// BusFailure: a call to the bus failed; the text names what could not be
// done and, in the bus's words (KelBusLastError), why.  Raised in Python as
// kelmsg.BusError.
#ifndef KELMSG_PYTHON_BUSFAILURE_H_
#define KELMSG_PYTHON_BUSFAILURE_H_

#include <stdexcept>
#include <string>

class BusFailure : public std::runtime_error {
 public:
  explicit BusFailure(const std::string& what) : std::runtime_error(what) {}
};

#endif  // KELMSG_PYTHON_BUSFAILURE_H_
