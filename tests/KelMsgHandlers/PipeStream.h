// PipeStream: a fully buffered stdio stream over the write end of a pipe, so
// that a test sees only the bytes that were flushed.
#ifndef KELMSG_TESTS_KELMSGHANDLERS_PIPESTREAM_H_
#define KELMSG_TESTS_KELMSGHANDLERS_PIPESTREAM_H_

#include <cstdio>
#include <string>

class PipeStream {
 public:
  PipeStream();
  ~PipeStream();
  PipeStream(const PipeStream&) = delete;
  PipeStream& operator=(const PipeStream&) = delete;

  FILE* Stream() const { return m_stream; }
  // The bytes flushed into the pipe since the last call, without waiting.
  std::string Flushed();

 private:
  int m_readEnd = -1;
  FILE* m_stream = nullptr;
};

#endif  // KELMSG_TESTS_KELMSGHANDLERS_PIPESTREAM_H_
