#include "KelMsgPayloadReader.h"

#include <bit>
#include <cstddef>
#include <cstring>

#include "KelMsgCheck.h"

static_assert(std::endian::native == std::endian::little,
              "payload integers are little-endian and are copied in host order");

namespace {
constexpr int kInt32Size = 4;
}  // namespace

KelMsgPayloadReader::KelMsgPayloadReader(const void* payload, int size) noexcept
    : m_begin(static_cast<const char*>(payload)),
      m_cursor(m_begin),
      m_end(m_begin + (size > 0 ? size : 0)) {}

std::int32_t KelMsgPayloadReader::ReadInt32() noexcept {
  const char* bytes = ReadBytes(kInt32Size);
  if (bytes == nullptr)
    return 0;
  std::int32_t value;
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

bool KelMsgPayloadReader::ReadCountedString(KelString& target) {
  const std::int32_t byteCount = ReadInt32();
  const char* bytes = ReadBytes(byteCount);
  if (m_failed)
    return false;
  target.BuildFromUTF8(bytes, byteCount);
  return true;
}

const char* KelMsgPayloadReader::ReadBytes(int byteCount) noexcept {
  if (m_failed)
    return nullptr;
  const std::ptrdiff_t bytesLeft = m_end - m_cursor;
  if (!KELMSG_PEER_CHECK(byteCount >= 0) || !KELMSG_PEER_CHECK(byteCount <= bytesLeft)) {
    m_failed = true;
    return nullptr;
  }
  const char* bytes = m_cursor;
  m_cursor += byteCount;
  return bytes;
}

bool KelMsgPayloadReader::ExpectEnd() noexcept {
  if (m_failed)
    return false;
  const std::ptrdiff_t bytesLeft = m_end - m_cursor;
  if (!KELMSG_PEER_CHECK(bytesLeft == 0))
    m_failed = true;
  return !m_failed;
}
