// KelMsgPayloadReader: reads the fields of a payload that another process
// sent, never past its end.
//
// A cursor over the `size` bytes of a payload.  A read that does not fit in
// what is left (a field cut short, a byte count that is negative or runs past
// the end) is reported as a refused payload through KELMSG_PEER_CHECK and puts
// the reader in a failed state: from then on every read yields nothing and
// reports nothing more.  Callers read all the fields they need, then test
// Failed() once before using any of them.
//
// Integers are 32-bit little-endian; a counted string is a 32-bit byte count
// followed by that many UTF-8 bytes.
#ifndef KELMSGFEAMESSAGING_KELMSGPAYLOADREADER_H_
#define KELMSGFEAMESSAGING_KELMSGPAYLOADREADER_H_

#include <cstdint>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgPayloadReader {
 public:
  // `payload` must stay valid while the reader is used; a negative `size`
  // counts as an empty payload.
  KelMsgPayloadReader(const void* payload, int size) noexcept;

  // The next integer, or 0 once the reader has failed.
  std::int32_t ReadInt32() noexcept;
  // Replaces `target` by the next counted string; its text ends at the first
  // NUL byte, while the cursor moves past all counted bytes.  On failure
  // `target` is unchanged and the result is false.
  bool ReadCountedString(KelString& target);
  // The next `byteCount` bytes, in place in the payload, or null once the
  // reader has failed.
  const char* ReadBytes(int byteCount) noexcept;
  // Refuses the payload unless every byte has been read.
  bool ExpectEnd() noexcept;

  bool Failed() const noexcept { return m_failed; }
  // Number of bytes read so far.
  int Offset() const noexcept { return static_cast<int>(m_cursor - m_begin); }

 private:
  const char* m_begin;
  const char* m_cursor;
  const char* m_end;
  bool m_failed = false;
};

#endif  // KELMSGFEAMESSAGING_KELMSGPAYLOADREADER_H_
