// Helpers shared by the message-type tests: payload bytes built by hand,
// payloads produced by Stream, refusal tracking around Unstream, and a memory
// stream that shows what Print flushed.
#ifndef KELMSG_TESTS_KELMSGTYPES_PAYLOADTESTSUPPORT_H_
#define KELMSG_TESTS_KELMSGTYPES_PAYLOADTESTSUPPORT_H_

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

using Bytes = std::vector<unsigned char>;

// Bytes written out one by one, for layouts compared byte for byte.
Bytes Hex(std::initializer_list<int> bytes);

// Builds a payload field by field, in wire form.
class PayloadBuilder {
 public:
  PayloadBuilder& Int32(std::int32_t value);
  // A byte count, then the bytes (which may hold NULs).
  PayloadBuilder& Counted(const std::string& bytes);
  PayloadBuilder& Raw(const std::string& bytes);
  const Bytes& Get() const { return m_bytes; }
  // Bytes so far: the offset of the next field.
  std::size_t Size() const { return m_bytes.size(); }

 private:
  Bytes m_bytes;
};

// What msg.Stream writes into a buffer of exactly RequiredBufferSize() bytes.
Bytes StreamToBytes(const KelMsgBBMessage& msg);

// Calls msg.Unstream on a heap copy of exactly `payload.size()` bytes, so that
// the sanitizer sees any read past its end.  Returns true when the payload
// was refused.
bool UnstreamIsRefused(KelMsgBBMessage& msg, const Bytes& payload);

// `payload` with the 32-bit integer at `offset` replaced by `value`.
Bytes WithInt32At(Bytes payload, std::size_t offset, std::int32_t value);

// A stdio stream into memory.  Flushed() shows only what has reached memory
// through a flush.
class MemoryStream {
 public:
  MemoryStream();
  ~MemoryStream();
  MemoryStream(const MemoryStream&) = delete;
  MemoryStream& operator=(const MemoryStream&) = delete;

  FILE* Get() const { return m_stream; }
  std::string Flushed() const;

 private:
  char* m_text = nullptr;
  std::size_t m_length = 0;
  FILE* m_stream;
};

#endif  // KELMSG_TESTS_KELMSGTYPES_PAYLOADTESTSUPPORT_H_
