#include <KelMsgFeaMessaging/KelBasFileOps.h>

#include <fcntl.h>

FILE* KelBasFileOps::Fopen(const KelString& path, const char* mode) {
  return std::fopen(path.GetUTF8(), mode);
}

int KelBasFileOps::Open(const char* path, int flags, int mode) {
  return ::open(path, flags, static_cast<mode_t>(mode));
}
