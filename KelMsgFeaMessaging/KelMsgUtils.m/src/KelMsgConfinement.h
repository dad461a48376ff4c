// KelMsgConfinement: the directories beneath which a file-transfer engine
// opens the files that peers name, and the opening, renaming and removing
// of those files.
//
// Without roots a path is taken as it is.  With roots, a path is used only
// when it lies beneath one of them as the kernel resolves it: an absolute
// path elsewhere, ".." and symbolic links that lead out are refused with
// EXDEV.  The kernel's openat2 with RESOLVE_BENEATH resolves; where the
// kernel lacks that call, each component is opened in turn without
// following symbolic links, which refuses every link and every "..".
// Whatever the roots, only regular files are opened: FIFOs, devices and
// directories are refused with ENXIO (a directory opened for writing with
// the system's EISDIR), without ever blocking on them.
//
// Paths are absolute and lexically normal, as KelMsgPathExplorer::FormPath
// makes them.  A root counts under its name as given and under its real
// path, so that either spelling of a path beneath it is accepted.
//
// Ownership: holds a descriptor of each root until destroyed.
// Threading: one thread at a time.
#ifndef KELMSGFEAMESSAGING_KELMSGCONFINEMENT_H_
#define KELMSGFEAMESSAGING_KELMSGCONFINEMENT_H_

#include <string>
#include <vector>

class KelMsgConfinement {
 public:
  // kKernel falls back to kComponents when openat2 is missing or filtered.
  enum class Resolution { kKernel, kComponents };

  explicit KelMsgConfinement(Resolution resolution = Resolution::kKernel);
  ~KelMsgConfinement();
  KelMsgConfinement(const KelMsgConfinement&) = delete;
  KelMsgConfinement& operator=(const KelMsgConfinement&) = delete;

  // Adds `directory` as a root: 0, or the errno why it cannot be opened.
  int AddRoot(const char* directory);
  bool Confines() const { return !m_roots.empty(); }

  // open(2) of a regular file: the descriptor, or -1 with errno set.
  int Open(const char* path, int flags, int mode) const;
  // rename(2) within one directory, unlink(2): 0, or -1 with errno set.
  int Rename(const char* from, const char* to) const;
  int Remove(const char* path) const;

  // True for the errors by which a path or an open is refused rather than
  // failing: EXDEV, ENXIO and EMFILE.
  static bool Refused(int error);
  // strerror(error), in words of its own for EXDEV and ENXIO.
  static const char* Describe(int error);

 private:
  struct Root {
    std::string path;
    int descriptor;
  };

  // A descriptor of the directory `parent` (O_PATH), or -1 with errno set.
  int OpenParent(const std::string& parent) const;
  // Opens `path` beneath the root that holds it: -1 with errno set.
  int OpenBeneath(const std::string& path, int flags, int mode) const;
  int OpenComponents(int root, const std::string& relative, int flags, int mode) const;

  Resolution m_resolution;
  std::vector<Root> m_roots;
};

#endif  // KELMSGFEAMESSAGING_KELMSGCONFINEMENT_H_
