// ChunkTap: a trace stream for the file-transfer engine that counts the
// chunks as they pass.  At trace level 4 the engine writes one line for every
// chunk it reads from the file it sends and one for every chunk it writes to
// the file it receives; the tap hands the bytes of each to a listener and
// keeps nothing else of the trace.
#ifndef KELMSG_TOOLS_KELMSG_CHUNKTAP_H_
#define KELMSG_TOOLS_KELMSG_CHUNKTAP_H_

#include <sys/types.h>

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

class ChunkTap {
 public:
  // The engine's trace level at which every chunk shows.
  static constexpr int kTraceLevel = 4;
  using Listener = std::function<void(int bytes)>;

  explicit ChunkTap(Listener listener);
  ~ChunkTap();
  ChunkTap(const ChunkTap&) = delete;
  ChunkTap& operator=(const ChunkTap&) = delete;

  // The stream to give the engine; valid while the tap lives.
  FILE* Stream() const { return m_stream; }

 private:
  static ssize_t Write(void* cookie, const char* data, size_t size);
  void Take(std::string_view line) const;

  Listener m_listener;
  std::string m_partialLine;
  FILE* m_stream;
};

#endif  // KELMSG_TOOLS_KELMSG_CHUNKTAP_H_
