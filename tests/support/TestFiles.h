// Whole files as strings, for tests that compare what a transfer wrote, and
// contents to transfer.
#ifndef KELMSG_TESTS_SUPPORT_TESTFILES_H_
#define KELMSG_TESTS_SUPPORT_TESTFILES_H_

#include <cstddef>
#include <filesystem>
#include <string>

// The bytes of the file; "" when it cannot be read.
std::string ReadFile(const std::filesystem::path& path);
// Creates or truncates the file and writes `content` into it.
void WriteFile(const std::filesystem::path& path, const std::string& content);
// `size` random bytes, the same for the same size, so that a chunk out of
// place shows.
std::string RandomBytes(std::size_t size);
// Open descriptors of this process: an operation that leaves a file open
// shows.
std::ptrdiff_t OpenDescriptors();

#endif  // KELMSG_TESTS_SUPPORT_TESTFILES_H_
