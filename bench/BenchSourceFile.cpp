#include "BenchSourceFile.h"

#include <algorithm>
#include <cstdio>
#include <vector>

bool WriteBenchSourceFile(const std::string& path, std::uintmax_t size) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr)
    return false;
  std::vector<std::uint32_t> block(256 * 1024);
  std::uint32_t word = 1;
  bool written = true;
  for (std::uintmax_t done = 0; done < size && written; done += block.size() * 4) {
    for (std::uint32_t& value : block)
      value = word = word * 1664525u + 1013904223u;
    const std::size_t count = std::min<std::uintmax_t>(block.size() * 4, size - done);
    written = std::fwrite(block.data(), 1, count, file) == count;
  }
  return std::fclose(file) == 0 && written;
}
