// KelString: the reference-counted UTF-8 string of every interface.
//
// Copies share the text; a write (BuildFromUTF8, Append, ASCIIToUpper) gives
// the written string its own text first, so a copy never sees another copy
// change.  A KelString may hold no text at all (default construction, or
// construction from null); such a string reads as "" everywhere.
// Reference counts are atomic, so copies of one string may be used from
// different threads; a single KelString object is not to be written from two
// threads at once.
#ifndef KELMSGFEAMESSAGING_KELSTRING_H_
#define KELMSGFEAMESSAGING_KELSTRING_H_

class KelString {
 public:
  KelString() noexcept = default;
  // Copies the NUL-terminated UTF-8 text; null gives a string with no text.
  KelString(const char* utf8);  // NOLINT(google-explicit-constructor): string literal use
  // Copies at most `length` bytes of `bytes`, stopping early at a NUL byte.
  KelString(const char* bytes, int length);
  KelString(const KelString& other) noexcept;
  KelString(KelString&& other) noexcept;
  KelString& operator=(const KelString& other) noexcept;
  KelString& operator=(KelString&& other) noexcept;
  ~KelString();

  // Replaces the content by a copy of the NUL-terminated text (null: no text).
  void BuildFromUTF8(const char* utf8);
  // Replaces the content by at most `length` bytes, stopping at a NUL byte.
  void BuildFromUTF8(const char* bytes, int length);

  // Number of bytes of the UTF-8 form, without terminator.
  int GetLengthInByte() const noexcept;
  // Number of characters (code points); a byte that is not a UTF-8
  // continuation byte starts a character.
  int GetLengthInChar() const noexcept;
  // NUL-terminated text; "" when the string holds no text.  Valid until the
  // string is written or destroyed.
  const char* GetUTF8() const noexcept;
  // True when the string holds text (possibly empty text).
  bool HasText() const noexcept { return m_rep != nullptr; }

  // Appends the other string's text in place.
  void Append(const KelString& other);
  // Upper-cases the ASCII letters a to z in place; other bytes are unchanged.
  void ASCIIToUpper();
  // Copies the UTF-8 form into `buffer`.  On entry *count is the buffer's
  // capacity in bytes; as many whole characters as fit are written, followed
  // by a NUL when there is room.  On return *count is the number of
  // characters written (not bytes).
  void ConvertToUTF8(char* buffer, unsigned* count) const;

  // Byte-wise comparison of the texts ("" for no text).
  friend bool operator==(const KelString& a, const KelString& b) noexcept;
  friend bool operator==(const KelString& a, const char* b) noexcept;

 private:
  struct Rep;
  void Release() noexcept;
  Rep* m_rep = nullptr;
};

#endif  // KELMSGFEAMESSAGING_KELSTRING_H_
