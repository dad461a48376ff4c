#include "KelMsgConfinement.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>

#include <KelMsgFeaMessaging/KelBasFileOps.h>
#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>

namespace {

// Closes the descriptor it holds, keeping errno as it was.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {}
  ~Descriptor() {
    if (m_descriptor < 0)
      return;
    const int error = errno;
    close(m_descriptor);
    errno = error;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return m_descriptor; }
  int Release() { return std::exchange(m_descriptor, -1); }
  void Reset(int descriptor) { Descriptor old(std::exchange(m_descriptor, descriptor)); }

 private:
  int m_descriptor;
};

int Fail(int error) {
  errno = error;
  return -1;
}

// `path` relative to `root`: "." for the root itself, "" when the path does
// not lie beneath it.
std::string Beneath(const std::string& root, const std::string& path) {
  if (path == root)
    return ".";
  const std::string prefix = root == "/" ? root : root + "/";
  return path.starts_with(prefix) ? path.substr(prefix.size()) : "";
}

// The directory that holds `path` and the path's last component.
std::pair<std::string, std::string> SplitParent(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string::npos)
    return {".", path};
  return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// Keeps `descriptor` only when it is a regular file, then lets it block.
int KeepRegular(int descriptor) {
  if (descriptor < 0)
    return -1;
  Descriptor file(descriptor);
  struct stat status {};
  if (fstat(descriptor, &status) != 0)
    return -1;
  if (!S_ISREG(status.st_mode))
    return Fail(ENXIO);
  if (fcntl(descriptor, F_SETFL, fcntl(descriptor, F_GETFL) & ~O_NONBLOCK) != 0)
    return -1;
  return file.Release();
}

}  // namespace

KelMsgConfinement::KelMsgConfinement(Resolution resolution) : m_resolution(resolution) {}

KelMsgConfinement::~KelMsgConfinement() {
  for (const Root& root : m_roots)
    close(root.descriptor);
}

int KelMsgConfinement::AddRoot(const char* directory) {
  const std::string given =
      KelBasUtlFilePath(cow_String(directory), cow_String("")).AbsolutePathName().GetText();
  const int descriptor = open(given.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0)
    return errno;
  m_roots.push_back({given, descriptor});
  std::error_code error;
  const std::string real = std::filesystem::canonical(given, error).string();
  if (!error && real != given)
    m_roots.push_back({real, fcntl(descriptor, F_DUPFD_CLOEXEC, 0)});
  return 0;
}

int KelMsgConfinement::Open(const char* path, int flags, int mode) const {
  // Not blocking lets a FIFO or a device be refused instead of waited on.
  const int opening = flags | O_NONBLOCK | O_CLOEXEC;
  return KeepRegular(Confines() ? OpenBeneath(path, opening, mode)
                                : KelBasFileOps::Open(path, opening, mode));
}

int KelMsgConfinement::Rename(const char* from, const char* to) const {
  const auto [fromDirectory, fromName] = SplitParent(from);
  const auto [toDirectory, toName] = SplitParent(to);
  if (fromDirectory != toDirectory)
    return Fail(EXDEV);
  const Descriptor directory(OpenParent(fromDirectory));
  if (directory.Get() < 0)
    return -1;
  return renameat(directory.Get(), fromName.c_str(), directory.Get(), toName.c_str());
}

int KelMsgConfinement::Remove(const char* path) const {
  const auto [parent, name] = SplitParent(path);
  const Descriptor directory(OpenParent(parent));
  if (directory.Get() < 0)
    return -1;
  return unlinkat(directory.Get(), name.c_str(), 0);
}

int KelMsgConfinement::OpenParent(const std::string& parent) const {
  const int flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  return Confines() ? OpenBeneath(parent, flags, 0) : open(parent.c_str(), flags);
}

int KelMsgConfinement::OpenBeneath(const std::string& path, int flags, int mode) const {
  for (const Root& root : m_roots) {
    const std::string relative = Beneath(root.path, path);
    if (relative.empty())
      continue;
    if (m_resolution == Resolution::kKernel) {
      open_how how{};
      how.flags = static_cast<unsigned>(flags);
      how.mode = (flags & O_CREAT) != 0 ? static_cast<unsigned>(mode) : 0;
      how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
      const long descriptor =
          syscall(SYS_openat2, root.descriptor, relative.c_str(), &how, sizeof how);
      // Some container runtimes' syscall filters answer EPERM for calls
      // they do not know; the walk is no less strict, so it may retry.
      if (descriptor >= 0 || (errno != ENOSYS && errno != EPERM))
        return static_cast<int>(descriptor);
    }
    return OpenComponents(root.descriptor, relative, flags, mode);
  }
  return Fail(EXDEV);
}

int KelMsgConfinement::OpenComponents(int root, const std::string& relative, int flags,
                                      int mode) const {
  Descriptor walked(-1);  // the directory reached so far, once below the root
  std::size_t start = 0;
  for (;;) {
    const std::size_t slash = relative.find('/', start);
    const std::string name = relative.substr(start, slash - start);
    if (name == "..")
      return Fail(EXDEV);
    const int directory = walked.Get() >= 0 ? walked.Get() : root;
    if (slash == std::string::npos) {
      const int descriptor = openat(directory, name.c_str(), flags | O_NOFOLLOW, mode);
      return descriptor < 0 && errno == ELOOP ? Fail(EXDEV) : descriptor;
    }
    Descriptor next(openat(directory, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (next.Get() < 0 || fstat(next.Get(), &status) != 0)
      return -1;
    if (S_ISLNK(status.st_mode))
      return Fail(EXDEV);
    if (!S_ISDIR(status.st_mode))
      return Fail(ENOTDIR);
    walked.Reset(next.Release());
    start = slash + 1;
  }
}

bool KelMsgConfinement::Refused(int error) {
  return error == EXDEV || error == ENXIO || error == EMFILE;
}

const char* KelMsgConfinement::Describe(int error) {
  switch (error) {
    case EXDEV:
      return "outside the permitted directories";
    case ENXIO:
      return "not a regular file";
    default:
      return std::strerror(error);
  }
}
