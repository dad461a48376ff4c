#include "KelMsgPayloadWriter.h"

#include <bit>
#include <cstddef>
#include <cstring>

static_assert(std::endian::native == std::endian::little,
              "payload integers are little-endian and are copied in host order");

void KelMsgPayloadWriter::WriteInt32(std::int32_t value) noexcept {
  WriteBytes(&value, sizeof value);
}

void KelMsgPayloadWriter::WriteCountedString(const KelString& text) noexcept {
  const int byteCount = text.GetLengthInByte();
  WriteInt32(byteCount);
  WriteBytes(text.GetUTF8(), byteCount);
}

void KelMsgPayloadWriter::WriteBytes(const void* bytes, int byteCount) noexcept {
  if (byteCount > 0)
    std::memcpy(m_cursor, bytes, static_cast<std::size_t>(byteCount));
  m_cursor += byteCount;
}
