// ScratchDirectory: a fresh directory under the system's temporary directory,
// removed with everything in it when the object goes.
#ifndef KELMSG_TESTS_SUPPORT_SCRATCHDIRECTORY_H_
#define KELMSG_TESTS_SUPPORT_SCRATCHDIRECTORY_H_

#include <filesystem>
#include <string>

class ScratchDirectory {
 public:
  ScratchDirectory();
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  // Absolute path, without symbolic links in it.
  const std::filesystem::path& Path() const { return m_path; }
  // Path() / relative as text.
  std::string operator/(const std::string& relative) const { return (m_path / relative).string(); }

 private:
  std::filesystem::path m_path;
};

#endif  // KELMSG_TESTS_SUPPORT_SCRATCHDIRECTORY_H_
