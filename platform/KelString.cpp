#include <KelMsgFeaMessaging/KelString.h>

#include <KelMsgFeaMessaging/mem_Operators.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

// One heap block per text: this header, then the bytes and a NUL.
struct KelString::Rep {
  std::atomic<int> refs;
  int length;

  char* Text() noexcept { return reinterpret_cast<char*>(this + 1); }

  // A block for `length` bytes, NUL-terminated, whose bytes the caller fills.
  static Rep* Allocate(int length) {
    void* memory = mem_OperatorNewThrowBuiltin(sizeof(Rep) + static_cast<std::size_t>(length) + 1);
    Rep* rep = new (memory) Rep{{1}, length};
    rep->Text()[length] = '\0';
    return rep;
  }

  static Rep* Make(const char* bytes, int length) {
    Rep* rep = Allocate(length);
    if (length > 0)
      std::memcpy(rep->Text(), bytes, static_cast<std::size_t>(length));
    return rep;
  }
};

namespace {

int BoundedLength(const char* bytes, int length) {
  if (length <= 0)
    return 0;
  const void* nul = std::memchr(bytes, '\0', static_cast<std::size_t>(length));
  return nul == nullptr ? length : static_cast<int>(static_cast<const char*>(nul) - bytes);
}

bool IsContinuationByte(unsigned char byte) {
  return (byte & 0xC0U) == 0x80U;
}

// Where the character that starts at `start` ends: after the byte that is no
// continuation byte and the continuation bytes after it; continuation bytes
// at the very start of the text belong to the first character.  These are
// GetLengthInChar's boundaries, so text that is not UTF-8 counts the same.
unsigned CharacterEnd(const unsigned char* text, unsigned start, unsigned length) {
  unsigned end = start;
  while (end < length && IsContinuationByte(text[end]))
    ++end;
  if (end < length)
    ++end;
  while (end < length && IsContinuationByte(text[end]))
    ++end;
  return end;
}

}  // namespace

KelString::KelString(const char* utf8) {
  BuildFromUTF8(utf8);
}

KelString::KelString(const char* bytes, int length) {
  BuildFromUTF8(bytes, length);
}

KelString::KelString(const KelString& other) noexcept : m_rep(other.m_rep) {
  if (m_rep != nullptr)
    m_rep->refs.fetch_add(1, std::memory_order_relaxed);
}

KelString::KelString(KelString&& other) noexcept : m_rep(other.m_rep) {
  other.m_rep = nullptr;
}

KelString& KelString::operator=(const KelString& other) noexcept {
  if (other.m_rep != nullptr)
    other.m_rep->refs.fetch_add(1, std::memory_order_relaxed);
  Release();
  m_rep = other.m_rep;
  return *this;
}

KelString& KelString::operator=(KelString&& other) noexcept {
  if (this != &other) {
    Release();
    m_rep = other.m_rep;
    other.m_rep = nullptr;
  }
  return *this;
}

KelString::~KelString() {
  Release();
}

void KelString::Release() noexcept {
  if (m_rep != nullptr && m_rep->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    m_rep->~Rep();
    mem_Free(m_rep);
  }
  m_rep = nullptr;
}

void KelString::BuildFromUTF8(const char* utf8) {
  if (utf8 == nullptr) {
    Release();
    return;
  }
  BuildFromUTF8(utf8, static_cast<int>(std::strlen(utf8)));
}

void KelString::BuildFromUTF8(const char* bytes, int length) {
  // Make the new text before letting go of the old: `bytes` may point into it.
  Rep* rep = Rep::Make(bytes, BoundedLength(bytes, length));
  Release();
  m_rep = rep;
}

int KelString::GetLengthInByte() const noexcept {
  return m_rep == nullptr ? 0 : m_rep->length;
}

int KelString::GetLengthInChar() const noexcept {
  int count = 0;
  const char* text = GetUTF8();
  for (int i = 0; i < GetLengthInByte(); ++i) {
    if (!IsContinuationByte(static_cast<unsigned char>(text[i])))
      ++count;
  }
  return count;
}

const char* KelString::GetUTF8() const noexcept {
  return m_rep == nullptr ? "" : m_rep->Text();
}

void KelString::Append(const KelString& other) {
  const int length = GetLengthInByte();
  const int otherLength = other.GetLengthInByte();
  Rep* rep = Rep::Allocate(length + otherLength);
  std::memcpy(rep->Text(), GetUTF8(), static_cast<std::size_t>(length));
  std::memcpy(rep->Text() + length, other.GetUTF8(), static_cast<std::size_t>(otherLength));
  Release();
  m_rep = rep;
}

void KelString::ASCIIToUpper() {
  if (m_rep == nullptr)
    return;
  if (m_rep->refs.load(std::memory_order_acquire) != 1) {
    Rep* own = Rep::Make(m_rep->Text(), m_rep->length);
    Release();
    m_rep = own;
  }
  for (char* c = m_rep->Text(); *c != '\0'; ++c) {
    if (*c >= 'a' && *c <= 'z')
      *c = static_cast<char>(*c - 'a' + 'A');
  }
}

void KelString::ConvertToUTF8(char* buffer, unsigned* count) const {
  const unsigned capacity = *count;
  const auto* text = reinterpret_cast<const unsigned char*>(GetUTF8());
  const auto length = static_cast<unsigned>(GetLengthInByte());
  unsigned written = 0;
  unsigned characters = 0;
  while (written < length) {
    const unsigned end = CharacterEnd(text, written, length);
    if (end > capacity)
      break;
    std::memcpy(buffer + written, text + written, end - written);
    characters += static_cast<unsigned>(std::count_if(
        text + written, text + end, [](unsigned char byte) { return !IsContinuationByte(byte); }));
    written = end;
  }
  if (written < capacity)
    buffer[written] = '\0';
  *count = characters;
}

bool operator==(const KelString& a, const KelString& b) noexcept {
  return a.GetLengthInByte() == b.GetLengthInByte() && std::strcmp(a.GetUTF8(), b.GetUTF8()) == 0;
}

bool operator==(const KelString& a, const char* b) noexcept {
  return std::strcmp(a.GetUTF8(), b == nullptr ? "" : b) == 0;
}
