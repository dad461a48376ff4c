#include "LibraryText.h"

#include <climits>

#include <pybind11/pybind11.h>

KelString LibraryText::From(const std::string& text, const char* what) {
  if (text.find('\0') != std::string::npos)
    throw pybind11::value_error(std::string(what) + " holds a NUL character");
  return KelString(text.data(), Size(text.size(), what));
}

int LibraryText::Size(std::size_t size, const char* what) {
  if (size > static_cast<std::size_t>(INT_MAX))
    throw pybind11::value_error(std::string(what) + " is larger than 2 GiB");
  return static_cast<int>(size);
}

std::string LibraryText::ToString(const KelString& text) {
  return std::string(text.GetUTF8(), static_cast<std::size_t>(text.GetLengthInByte()));
}
