// KelMsgStreamUtils: the wire form of a KelString inside a payload.
//
// A counted string is a signed 32-bit little-endian byte count n (0 or more),
// followed by the n bytes of the string's UTF-8 form, with no terminator and
// no alignment.  The empty string is 00 00 00 00; "é" is 02 00 00 00 C3 A9.
//
// The operations keep no state and may be called from any thread.
#ifndef KELMSGFEAMESSAGING_KELMSGSTREAMUTILS_H_
#define KELMSGFEAMESSAGING_KELMSGSTREAMUTILS_H_

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgStreamUtils {
 public:
  KelMsgStreamUtils() = delete;

  // Writes `text` as a counted string at `buffer` + `offset` and advances
  // `offset` by 4 + its byte count.  The caller has made room for it.
  static void StreamKelString(const KelString& text, char* buffer, int& offset);

  // Reads the counted string at `buffer` + `offset` into `target`, replacing
  // its old value, and advances `offset` by 4 + the count.  The text ends at
  // the first NUL byte of the counted bytes, if any; the offset still moves
  // past all of them.
  // Precondition: a well-formed counted string lies there, written by
  // StreamKelString (the process ends on a negative count).  For bytes from
  // another process use the bounded form below.
  static void UnstreamKelString(KelString& target, const char* buffer, int& offset);

  // The same for a payload of `size` bytes: a count that is negative or runs
  // past `size` is reported as a refused payload and nothing is read past the
  // end.  Returns false on refusal, leaving `target` and `offset` unchanged.
  // Precondition: 0 <= offset <= size.
  static bool UnstreamKelString(KelString& target, const char* buffer, int size, int& offset);
};

#endif  // KELMSGFEAMESSAGING_KELMSGSTREAMUTILS_H_
