#include "TestFiles.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream bytes;  // copied in blocks: files of many MiB are compared whole
  bytes << in.rdbuf();
  return std::move(bytes).str();
}

void WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string RandomBytes(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  // Four bytes a draw: files of many MiB are made in a moment, sanitized too.
  for (std::size_t at = 0; at < size; at += 4) {
    const std::uint32_t word = random();
    std::memcpy(bytes.data() + at, &word, std::min<std::size_t>(4, size - at));
  }
  return bytes;
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}
