#include <KelMsgFeaMessaging/KelMsgProcessControlType.h>

#include <KelMsgFeaMessaging/KelMsgProcessControlEncoder.h>
#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"

KelMsgProcessControlType::KelMsgProcessControlType()
    : KelMsgBBMessage(KelString("KelMsgProcessControlType")) {}

KelMsgProcessControlType::~KelMsgProcessControlType() = default;

KelString KelMsgProcessControlType::GetVal(const KelString& key) const {
  const auto found = m_values.find(key);
  return found != m_values.end() ? found->second : KelString();
}

bool KelMsgProcessControlType::isPresent(const KelString& key) const {
  return m_values.contains(key);
}

int KelMsgProcessControlType::RequiredBufferSize() const {
  KELMSG_ASSERT(m_xmlMessage.GetLengthInChar() > 0);
  return 4 + m_xmlMessage.GetLengthInByte();
}

void KelMsgProcessControlType::Stream(void* buffer, int size) const {
  KELMSG_ASSERT(size >= RequiredBufferSize());
  int offset = 0;
  KelMsgStreamUtils::StreamKelString(m_xmlMessage, static_cast<char*>(buffer), offset);
}

void KelMsgProcessControlType::Unstream(const void* buffer, int size) {
  KelMsgPayloadReader payload(buffer, size);
  const int len = payload.ReadInt32();
  if (payload.Failed() || !KELMSG_PEER_CHECK(len > 0))
    return;
  const char* xml = payload.ReadBytes(len);
  if (!payload.ExpectEnd())
    return;
  m_xmlMessage.BuildFromUTF8(xml, len);
  KelMsgProcessControlEncoder::InternalizeProcessControlMsg(*this);
}

KelMsgBBMessage* KelMsgProcessControlType::Clone() const {
  return new KelMsgProcessControlType(*this);
}

void KelMsgProcessControlType::Print(FILE* stream, const char* prefix) const {
  KelMsgBBMessage::Print(stream, prefix);
  std::fprintf(stream, "%s   Content: %s\n", prefix != nullptr ? prefix : "",
               m_xmlMessage.GetUTF8());
  std::fflush(stream);
}
