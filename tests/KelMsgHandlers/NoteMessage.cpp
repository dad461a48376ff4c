#include "NoteMessage.h"

#include <cstring>

NoteMessage::NoteMessage(std::string text) : KelMsgBBMessage(kType), m_text(std::move(text)) {}

int NoteMessage::RequiredBufferSize() const {
  return static_cast<int>(m_text.size());
}

void NoteMessage::Stream(void* buffer, int /*size*/) const {
  std::memcpy(buffer, m_text.data(), m_text.size());
}

void NoteMessage::Unstream(const void* buffer, int size) {
  m_text.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(size));
}

KelMsgBBMessage* NoteMessage::Clone() const {
  return new NoteMessage(m_text);
}

void NoteMessage::Print(FILE* stream, const char* prefix) const {
  ++m_prints;
  if (m_printWatcher)
    m_printWatcher(stream);
  KelMsgBBMessage::Print(stream, prefix);
  std::fprintf(stream, "  note: %s\n", m_text.c_str());
}
