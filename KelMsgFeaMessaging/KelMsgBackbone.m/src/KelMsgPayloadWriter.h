// KelMsgPayloadWriter: writes the fields of a payload in the layout that
// KelMsgPayloadReader reads.
//
// A cursor over a buffer that the caller has sized from the payload's
// required size; the writer itself checks no bound.
#ifndef KELMSGFEAMESSAGING_KELMSGPAYLOADWRITER_H_
#define KELMSGFEAMESSAGING_KELMSGPAYLOADWRITER_H_

#include <cstdint>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgPayloadWriter {
 public:
  // Writes from `buffer` + `offset` on.
  KelMsgPayloadWriter(void* buffer, int offset) noexcept
      : m_begin(static_cast<char*>(buffer)), m_cursor(m_begin + offset) {}

  void WriteInt32(std::int32_t value) noexcept;
  // The byte count of the UTF-8 form, then those bytes, no terminator.
  void WriteCountedString(const KelString& text) noexcept;
  // Precondition: byteCount >= 0; `bytes` may be null when it is 0.
  void WriteBytes(const void* bytes, int byteCount) noexcept;

  // Offset from `buffer` just past the last byte written.
  int Offset() const noexcept { return static_cast<int>(m_cursor - m_begin); }

 private:
  char* m_begin;
  char* m_cursor;
};

#endif  // KELMSGFEAMESSAGING_KELMSGPAYLOADWRITER_H_
