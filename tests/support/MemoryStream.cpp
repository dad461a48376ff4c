#include "MemoryStream.h"

#include <cstdlib>

MemoryStream::MemoryStream() : m_stream(open_memstream(&m_text, &m_length)) {}

MemoryStream::~MemoryStream() {
  std::fclose(m_stream);
  std::free(m_text);
}

std::string MemoryStream::Flushed() const {
  return m_text == nullptr ? std::string() : std::string(m_text, m_length);
}
