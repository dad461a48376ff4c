#include "TestFiles.h"

#include <fstream>
#include <iterator>
#include <random>

std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void WriteFile(const std::filesystem::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string RandomBytes(std::size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string bytes(size, '\0');
  for (char& byte : bytes)
    byte = static_cast<char>(random());
  return bytes;
}

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}
