#include <KelMsgFeaMessaging/KelMsgStringType.h>

#include <cstddef>
#include <cstring>

#include <KelMsgFeaMessaging/mem_Operators.h>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"

KelMsgStringType::KelMsgStringType() : KelMsgBBMessage(KelString("KelMsgStringType")) {}

KelMsgStringType::~KelMsgStringType() {
  ReleaseOwnedData();
}

void KelMsgStringType::ReleaseOwnedData() noexcept {
  if (m_ownsData) {
    // Owned bytes are only ever the message's own allocation.
    mem_Free(const_cast<char*>(m_data));
    m_data = nullptr;
    m_ownsData = false;
  }
}

void KelMsgStringType::SetData(const char* data, int size) {
  KELMSG_ASSERT(size >= 0);
  KELMSG_ASSERT(data != nullptr || size == 0);
  ReleaseOwnedData();
  m_data = data;
  m_size = size;
}

int KelMsgStringType::RequiredBufferSize() const {
  return m_size;
}

void KelMsgStringType::Stream(void* buffer, int size) const {
  KELMSG_ASSERT(size >= RequiredBufferSize());
  if (m_size > 0)
    std::memcpy(buffer, m_data, static_cast<std::size_t>(m_size));
}

void KelMsgStringType::Unstream(const void* buffer, int size) {
  KelMsgPayloadReader payload(buffer, size);
  const char* bytes = payload.ReadBytes(size);
  if (payload.Failed())
    return;
  auto* copy = static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(size)));
  if (size > 0)
    std::memcpy(copy, bytes, static_cast<std::size_t>(size));
  ReleaseOwnedData();
  m_data = copy;
  m_size = size;
  m_ownsData = true;
}

KelMsgBBMessage* KelMsgStringType::Clone() const {
  return new KelMsgStringType();
}

void KelMsgStringType::Print(FILE* stream, const char* prefix) const {
  KelMsgBBMessage::Print(stream, prefix);
  const char* p = prefix != nullptr ? prefix : "";
  std::fprintf(stream, "%s   size: %d\n", p, m_size);
  if (m_size > 0) {
    std::fprintf(stream, "%s   data[0]: %c\n", p, m_data[0]);
    std::fprintf(stream, "%s   data[%d]: %c\n", p, m_size - 1, m_data[m_size - 1]);
  }
  std::fflush(stream);
}
