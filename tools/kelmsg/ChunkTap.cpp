#include "ChunkTap.h"

#include <cstdlib>
#include <new>
#include <utility>

namespace {

// The engine's per-chunk lines, up to the byte count that ends each.
constexpr std::string_view kChunkRead = "::ReadChunk fileId ";
constexpr std::string_view kChunkReadBytes = " bytes ";
constexpr std::string_view kChunkWritten = "::WriteChunk bytesWritten=";

// The count at the end of `line` after `marker`; 0 when it is not there.
int CountAfter(std::string_view line, std::string_view marker) {
  const std::size_t at = line.rfind(marker);
  if (at == std::string_view::npos)
    return 0;
  return std::atoi(std::string(line.substr(at + marker.size())).c_str());
}

}  // namespace

ChunkTap::ChunkTap(Listener listener) : m_listener(std::move(listener)) {
  cookie_io_functions_t functions{};
  functions.write = Write;
  m_stream = fopencookie(this, "w", functions);
  if (m_stream == nullptr)
    throw std::bad_alloc();
  // Each line reaches the tap when the engine writes it, not when a buffer fills.
  std::setvbuf(m_stream, nullptr, _IOLBF, 0);
}

ChunkTap::~ChunkTap() {
  std::fclose(m_stream);
}

ssize_t ChunkTap::Write(void* cookie, const char* data, size_t size) {
  auto* tap = static_cast<ChunkTap*>(cookie);
  tap->m_partialLine.append(data, size);
  std::size_t end;
  while ((end = tap->m_partialLine.find('\n')) != std::string::npos) {
    tap->Take(std::string_view(tap->m_partialLine).substr(0, end));
    tap->m_partialLine.erase(0, end + 1);
  }
  return static_cast<ssize_t>(size);
}

void ChunkTap::Take(std::string_view line) const {
  int bytes = 0;
  if (line.starts_with(kChunkRead))
    bytes = CountAfter(line, kChunkReadBytes);
  if (line.starts_with(kChunkWritten))
    bytes = CountAfter(line, kChunkWritten);
  // The read at the end of the file counts 0, a failed read or write -1.
  if (bytes > 0)
    m_listener(bytes);
}
