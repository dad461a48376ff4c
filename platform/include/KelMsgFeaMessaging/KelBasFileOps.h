// KelBasFileOps: opening files by path.
//
// Both operations open exactly as the C and POSIX routines of the same name
// do and hand the result to the caller, who closes it (fclose or close).
#ifndef KELMSGFEAMESSAGING_KELBASFILEOPS_H_
#define KELMSGFEAMESSAGING_KELBASFILEOPS_H_

#include <cstdio>

#include <KelMsgFeaMessaging/KelString.h>

class KelBasFileOps {
 public:
  KelBasFileOps() = delete;

  // fopen of the UTF-8 text of `path` ("" for no text) with `mode`, which
  // must not be null.  Returns the stream, or null when it cannot be opened.
  static FILE* Fopen(const KelString& path, const char* mode);
  // POSIX open of `path` (not null) with `flags` and, when they create the
  // file, the permission bits `mode`.  Returns the descriptor, negative on
  // failure.
  static int Open(const char* path, int flags, int mode);
};

#endif  // KELMSGFEAMESSAGING_KELBASFILEOPS_H_
