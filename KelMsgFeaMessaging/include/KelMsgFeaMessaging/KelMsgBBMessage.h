// KelMsgBBMessage: the abstract base of every message that crosses the bus.
//
// A message has a type name, under which the registry keeps its prototype and
// handler, and knows how to size, write (Stream), rebuild (Unstream), copy
// (Clone) and print itself.  The registry frames each payload in an envelope:
//
//   offset 0      int32 n, byte count of the sender's message identifier
//   offset 4      the identifier's n UTF-8 bytes, no terminator
//   offset 4 + n  the payload, exactly as Stream writes it
//
// Integers are 32-bit little-endian.  Heap objects of every message class are
// made with mem_OperatorNewThrow and released with mem_Free.  A message is
// used by one thread at a time; the library touches it only on the thread
// that calls the bus.
//
// The contracts below hold for every message class; a class's own header adds
// only what is particular to it.
#ifndef KELMSGFEAMESSAGING_KELMSGBBMESSAGE_H_
#define KELMSGFEAMESSAGING_KELMSGBBMESSAGE_H_

#include <cstddef>
#include <cstdio>

#include <KelMsgFeaMessaging/KelString.h>

class KelMsgBBMessage {
 public:
  // Shares `type` (no byte copy).  Each concrete class passes its type name.
  explicit KelMsgBBMessage(const KelString& type);
  virtual ~KelMsgBBMessage();

  // Text of the type name, owned by the message; "" when it holds no text.
  virtual const char* Type() const;
  // True when both Type() texts are equal (names only, not classes).
  virtual bool SameType(const KelMsgBBMessage& other) const;

  // Exact number of bytes Stream writes for the present contents (payload
  // only; the envelope is the registry's).
  virtual int RequiredBufferSize() const = 0;
  // Writes the payload at `buffer`, which has room for `size` bytes.
  // Precondition: size >= RequiredBufferSize(); the library's message classes
  // end the process when it is broken.
  virtual void Stream(void* buffer, int size) const = 0;
  // Rebuilds the contents from a payload of exactly `size` bytes that another
  // process sent.  The bytes belong to the caller and live only during the
  // call.  An implementation never reads outside [buffer, buffer + size): a
  // payload it cannot take is refused through the library's peer checks,
  // after which the registry hands the message to no handler.
  virtual void Unstream(const void* buffer, int size) = 0;
  // New heap object of the same class and type, owned by the caller.
  virtual KelMsgBBMessage* Clone() const = 0;
  // Writes "%sMessage Type: %s\n" (prefix, type; null prefix prints as
  // nothing).  Does not flush.  Subclasses print their fields after it.
  virtual void Print(FILE* stream, const char* prefix) const;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;

 protected:
  KelMsgBBMessage(const KelMsgBBMessage&) = default;
  KelMsgBBMessage& operator=(const KelMsgBBMessage&) = default;

 private:
  KelString m_type;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBMESSAGE_H_
