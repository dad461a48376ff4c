#include <KelMsgFeaMessaging/KelMsgAnalysisMessageType.h>

#include <cstddef>
#include <memory>

#include <KelMsgFeaMessaging/KelBasXmlDocument.h>
#include <KelMsgFeaMessaging/KelMsgStreamUtils.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"

namespace {

struct MemFree {
  void operator()(char* bytes) const noexcept { mem_Free(bytes); }
};

// Sets `name` to the root element's tag name; reports and returns false when
// the parser refuses the document.
bool ReadRootTagName(const KelString& xmlBuffer, KelString& name) {
  KelBasXmlDocument document;
  const int hr = document.ReadString(xmlBuffer);
  if (!KELMSG_PEER_CHECK(hr == S_OK))
    return false;
  name = document.GetRootElement().GetTagName();
  return true;
}

}  // namespace

KelMsgAnalysisMessageType::KelMsgAnalysisMessageType()
    : KelMsgBBMessage(KelString("KelMsgAnalysisMessageType")) {}

KelMsgAnalysisMessageType::KelMsgAnalysisMessageType(const KelString& xmlBuffer)
    : KelMsgAnalysisMessageType() {
  KELMSG_ASSERT(xmlBuffer.GetLengthInByte() > 0);
  m_msgBuffer = xmlBuffer;
}

KelMsgAnalysisMessageType::~KelMsgAnalysisMessageType() = default;

KelString KelMsgAnalysisMessageType::GetRootElemNameFromXml(const KelString& xmlBuffer) {
  KelString name;
  ReadRootTagName(xmlBuffer, name);
  return name;
}

KelString KelMsgAnalysisMessageType::GetTypeFromXmlBuffer(const KelString& xmlBuffer) const {
  KelString name;
  if (!ReadRootTagName(xmlBuffer, name))
    return KelString();
  const unsigned len = static_cast<unsigned>(name.GetLengthInChar());
  if (!KELMSG_PEER_CHECK(len > 0))
    return KelString();
  // Four bytes hold the UTF-8 form of any character.
  const std::size_t capacity = 4 * static_cast<std::size_t>(len);
  std::unique_ptr<char, MemFree> utf8(static_cast<char*>(mem_OperatorNewThrowBuiltin(capacity)));
  unsigned s1 = static_cast<unsigned>(capacity);
  name.ConvertToUTF8(utf8.get(), &s1);
  if (!KELMSG_PEER_CHECK(len >= s1))
    return KelString();
  // A name that is not UTF-8 can hold a "character" of more than four bytes,
  // which the conversion leaves out: such a name names no kind.
  if (!KELMSG_PEER_CHECK(s1 == len))
    return KelString();
  return KelString(utf8.get(), static_cast<int>(capacity));
}

int KelMsgAnalysisMessageType::RequiredBufferSize() const {
  KELMSG_ASSERT(m_msgBuffer.GetLengthInByte() > 0);
  return 4 + m_msgBuffer.GetLengthInByte();
}

void KelMsgAnalysisMessageType::Stream(void* buffer, int size) const {
  KELMSG_ASSERT(size >= RequiredBufferSize());
  int offset = 0;
  KelMsgStreamUtils::StreamKelString(m_msgBuffer, static_cast<char*>(buffer), offset);
}

void KelMsgAnalysisMessageType::Unstream(const void* buffer, int size) {
  KelMsgPayloadReader payload(buffer, size);
  KelString document;
  payload.ReadCountedString(document);
  if (!payload.ExpectEnd())
    return;
  m_msgBuffer = document;
}

KelMsgBBMessage* KelMsgAnalysisMessageType::Clone() const {
  return new KelMsgAnalysisMessageType(*this);
}

void KelMsgAnalysisMessageType::Print(FILE* stream, const char* prefix) const {
  std::fprintf(stream, "Analysis Message Prefix%s\n", prefix != nullptr ? prefix : "DefaultPfix");
  std::fprintf(stream, "%s\n", m_msgBuffer.GetUTF8());
  std::fflush(stream);
}
