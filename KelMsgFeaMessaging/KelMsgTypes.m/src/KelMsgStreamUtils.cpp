#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>

#include <cstdint>
#include <cstring>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"
#include "KelMsgPayloadWriter.h"

void KelMsgStreamUtils::StreamKelString(const KelString& text, char* buffer, int& offset) {
  KelMsgPayloadWriter payload(buffer, offset);
  payload.WriteCountedString(text);
  offset = payload.Offset();
}

void KelMsgStreamUtils::UnstreamKelString(KelString& target, const char* buffer, int& offset) {
  std::int32_t count;
  std::memcpy(&count, buffer + offset, sizeof count);
  KELMSG_ASSERT(count >= 0);
  target.BuildFromUTF8(buffer + offset + sizeof count, count);
  offset += static_cast<int>(sizeof count) + count;
}

bool KelMsgStreamUtils::UnstreamKelString(KelString& target, const char* buffer, int size,
                                          int& offset) {
  KELMSG_ASSERT(0 <= offset && offset <= size);
  KelMsgPayloadReader payload(buffer + offset, size - offset);
  if (!payload.ReadCountedString(target))
    return false;
  offset += payload.Offset();
  return true;
}
