// cow_String: the reference-counted key string of the copy-on-write maps.
#ifndef KELMSGFEAMESSAGING_COW_STRING_H_
#define KELMSGFEAMESSAGING_COW_STRING_H_

#include <KelMsgFeaMessaging/KelString.h>

class cow_String {
 public:
  cow_String() = default;
  // Copies the NUL-terminated text; null gives a string with no text.
  cow_String(const char* text) : m_text(text) {}  // NOLINT(google-explicit-constructor)

  // NUL-terminated text; "" when the string holds no text.
  const char* GetText() const noexcept { return m_text.GetUTF8(); }

 private:
  KelString m_text;  // shares its text by reference count on copy
};

// Key order of the maps: strnatcmp when atr_getNaturalOrder() is non-zero,
// strcmp otherwise; the switch is read at every call.
int cow_KeyCompare(const cow_String& a, const cow_String& b);
inline int cow_KeyCompare(int a, int b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

#endif  // KELMSGFEAMESSAGING_COW_STRING_H_
