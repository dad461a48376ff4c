// TransferFailure: a push or pull was not verified; the text is the
// transfer's one line (who could not do what with which file, and why).
// Raised in Python as kelmsg.TransferError.
#ifndef KELMSG_PYTHON_TRANSFERFAILURE_H_
#define KELMSG_PYTHON_TRANSFERFAILURE_H_

#include <stdexcept>
#include <string>

class TransferFailure : public std::runtime_error {
 public:
  explicit TransferFailure(const std::string& what) : std::runtime_error(what) {}
};

#endif  // KELMSG_PYTHON_TRANSFERFAILURE_H_
