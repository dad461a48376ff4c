// A stdio stream into memory.  Flushed() shows only what has reached memory
// through a flush.
#ifndef KELMSG_TESTS_SUPPORT_MEMORYSTREAM_H_
#define KELMSG_TESTS_SUPPORT_MEMORYSTREAM_H_

#include <cstddef>
#include <cstdio>
#include <string>

class MemoryStream {
 public:
  MemoryStream();
  ~MemoryStream();
  MemoryStream(const MemoryStream&) = delete;
  MemoryStream& operator=(const MemoryStream&) = delete;

  FILE* Get() const { return m_stream; }
  std::string Flushed() const;

 private:
  char* m_text = nullptr;
  std::size_t m_length = 0;
  FILE* m_stream;
};

#endif  // KELMSG_TESTS_SUPPORT_MEMORYSTREAM_H_
