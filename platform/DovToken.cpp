#include <KelMsgFeaMessaging/DovToken.h>

#include <cstring>

#include "DovAssert.h"

namespace {

// Bytes of the UTF-8 character that starts with `lead`, at most `left`; a
// stray byte is a character of its own.
int CharacterLength(unsigned char lead, int left) {
  int length = 1;
  if ((lead & 0xE0U) == 0xC0U)
    length = 2;
  if ((lead & 0xF0U) == 0xE0U)
    length = 3;
  if ((lead & 0xF8U) == 0xF0U)
    length = 4;
  return length < left ? length : left;
}

// True when the `length` bytes at `character` are one of the characters of
// `separators`.
bool IsSeparator(const char* character, int length, const DovUnicodeString& separators) {
  const char* set = separators.ConvertToChar();
  const int setLength = separators.GetLengthInByte();
  for (int at = 0; at < setLength;) {
    const int candidate = CharacterLength(static_cast<unsigned char>(set[at]), setLength - at);
    if (candidate == length &&
        std::memcmp(set + at, character, static_cast<std::size_t>(length)) == 0) {
      return true;
    }
    at += candidate;
  }
  return false;
}

}  // namespace

DovToken::DovToken(const DovUnicodeString& text, unsigned char mode) : m_text(text) {
  DOV_ASSERT(mode == 0);
}

DovUnicodeString DovToken::GetNextToken(const DovUnicodeString& separators,
                                        DovUnicodeString* found) {
  const char* text = m_text.ConvertToChar();
  const int end = m_text.GetLengthInByte();
  int start = -1;
  while (m_position < end) {
    const int length =
        CharacterLength(static_cast<unsigned char>(text[m_position]), end - m_position);
    const bool separator = IsSeparator(text + m_position, length, separators);
    if (separator && start >= 0) {
      if (found != nullptr)
        *found = DovUnicodeString(text + m_position, length);
      const DovUnicodeString token(text + start, m_position - start);
      m_position += length;
      return token;
    }
    if (!separator && start < 0)
      start = m_position;
    m_position += length;
  }
  if (found != nullptr)
    *found = DovUnicodeString();
  return start < 0 ? DovUnicodeString() : DovUnicodeString(text + start, end - start);
}
