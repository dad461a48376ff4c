#include "PipeStream.h"

#include <fcntl.h>
#include <unistd.h>

PipeStream::PipeStream() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
    return;
  m_readEnd = ends[0];
  m_stream = ::fdopen(ends[1], "w");
  if (m_stream == nullptr) {
    ::close(ends[1]);
    return;
  }
  // A pipe is fully buffered already; say so, since the tests rely on it.
  std::setvbuf(m_stream, nullptr, _IOFBF, BUFSIZ);
}

PipeStream::~PipeStream() {
  if (m_stream != nullptr)
    std::fclose(m_stream);
  if (m_readEnd >= 0)
    ::close(m_readEnd);
}

std::string PipeStream::Flushed() {
  std::string bytes;
  char chunk[256];
  for (ssize_t got; (got = ::read(m_readEnd, chunk, sizeof chunk)) > 0;) {
    bytes.append(chunk, static_cast<std::size_t>(got));
  }
  return bytes;
}
