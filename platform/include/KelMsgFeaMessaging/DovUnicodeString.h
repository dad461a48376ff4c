// DovUnicodeString: the string type of the maker's system library.
//
// Holds UTF-8 text and shares it by reference count on copy, as KelString
// does.  A string built from null holds no text and reads as "".
#ifndef KELMSGFEAMESSAGING_DOVUNICODESTRING_H_
#define KELMSGFEAMESSAGING_DOVUNICODESTRING_H_

#include <KelMsgFeaMessaging/KelString.h>

class DovUnicodeString {
 public:
  DovUnicodeString() = default;
  // Copies the NUL-terminated UTF-8 text.
  explicit DovUnicodeString(const char* utf8) : m_text(utf8) {}
  // Copies at most `length` bytes of `bytes`, stopping early at a NUL byte.
  DovUnicodeString(const char* bytes, int length) : m_text(bytes, length) {}

  // Number of characters (code points), not bytes.
  int GetLengthInChar() const noexcept { return m_text.GetLengthInChar(); }
  // Number of bytes of the text, without terminator.
  int GetLengthInByte() const noexcept { return m_text.GetLengthInByte(); }
  // The NUL-terminated text; valid while the string lives unchanged.
  const char* ConvertToChar() const noexcept { return m_text.GetUTF8(); }

 private:
  KelString m_text;
};

#endif  // KELMSGFEAMESSAGING_DOVUNICODESTRING_H_
