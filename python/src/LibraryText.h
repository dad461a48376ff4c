// LibraryText: what Python hands over, checked for what the library takes:
// texts without NUL bytes (the library keeps C strings) and byte counts that
// fit its int sizes.  Refusals raise ValueError naming the argument.
#ifndef KELMSG_PYTHON_LIBRARYTEXT_H_
#define KELMSG_PYTHON_LIBRARYTEXT_H_

#include <cstddef>
#include <string>

#include <KelMsgFeaMessaging/KelString.h>

class LibraryText {
 public:
  LibraryText() = delete;

  static KelString From(const std::string& text, const char* what);
  static int Size(std::size_t size, const char* what);
  // The bytes of `text`, NUL bytes included.
  static std::string ToString(const KelString& text);
};

#endif  // KELMSG_PYTHON_LIBRARYTEXT_H_
