#include <KelMsgFeaMessaging/KelMsgBBMessage.h>

#include <cstring>

#include <KelMsgFeaMessaging/mem_Operators.h>

KelMsgBBMessage::KelMsgBBMessage(const KelString& type) : m_type(type) {}

KelMsgBBMessage::~KelMsgBBMessage() = default;

const char* KelMsgBBMessage::Type() const {
  return m_type.GetUTF8();
}

bool KelMsgBBMessage::SameType(const KelMsgBBMessage& other) const {
  return std::strcmp(Type(), other.Type()) == 0;
}

void KelMsgBBMessage::Print(FILE* stream, const char* prefix) const {
  const KelString prefixText(prefix);
  std::fprintf(stream, "%sMessage Type: %s\n", prefixText.GetUTF8(), m_type.GetUTF8());
}

void* KelMsgBBMessage::operator new(std::size_t size) {
  return mem_OperatorNewThrow(size);
}

void KelMsgBBMessage::operator delete(void* memory) noexcept {
  mem_Free(memory);
}
