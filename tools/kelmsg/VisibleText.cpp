#include "VisibleText.h"

#include <cstdlib>

#include "CommandFailure.h"

namespace {

constexpr unsigned char kDelete = 0x7F;
constexpr unsigned char kC1Lead = 0xC2;  // U+0080..U+009F are C2 80..C2 9F
constexpr unsigned char kC1Last = 0x9F;

// The length of the well-formed UTF-8 sequence at the start of `text`, or 0.
std::size_t SequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;   // no overlong forms
    high = lead == 0xED ? 0x9F : 0xBF;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF;  // nothing above U+10FFFF
  }
  if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high)
    return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF)
      return 0;
  }
  return length;
}

void AppendEscaped(std::string_view bytes, std::string* visible) {
  constexpr char kHex[] = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    *visible += "\\x";
    *visible += kHex[byte >> 4];
    *visible += kHex[byte & 0xF];
  }
}

}  // namespace

std::string VisibleText(std::string_view text, LineBreaks lineBreaks) {
  std::string visible;
  while (!text.empty()) {
    const auto lead = static_cast<unsigned char>(text.front());
    std::size_t length = 1;
    bool control = lead < 0x20 || lead == kDelete;
    if (lead == '\n' && lineBreaks == LineBreaks::kKeep)
      control = false;
    if (lead >= 0x80) {
      length = SequenceLength(text);
      control = length == 0 || (lead == kC1Lead && static_cast<unsigned char>(text[1]) <= kC1Last);
      length = length == 0 ? 1 : length;
    }
    if (control)
      AppendEscaped(text.substr(0, length), &visible);
    else
      visible.append(text.substr(0, length));
    text.remove_prefix(length);
  }
  return visible;
}

std::string Printed(const std::function<void(std::FILE*)>& print) {
  char* buffer = nullptr;
  std::size_t length = 0;
  std::FILE* stream = open_memstream(&buffer, &length);
  if (stream == nullptr)
    throw CommandFailure("cannot capture a printout: out of memory");
  // Closes the stream, then frees what it wrote, after the copy is made.
  struct Release {
    std::FILE* stream;
    char** buffer;
    ~Release() {
      std::fclose(stream);
      std::free(*buffer);
    }
  } release{stream, &buffer};
  print(stream);
  std::fflush(stream);
  return std::string(buffer, length);
}
