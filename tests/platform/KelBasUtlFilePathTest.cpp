#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"

namespace fs = std::filesystem;

namespace {

std::string Absolute(const char* path, const char* base) {
  return KelBasUtlFilePath(cow_String(path), cow_String(base)).AbsolutePathName().GetText();
}

// Makes `directory` the current directory for the object's lifetime.
class CurrentDirectory {
 public:
  explicit CurrentDirectory(const fs::path& directory) : m_previous(fs::current_path()) {
    fs::current_path(directory);
  }
  ~CurrentDirectory() { fs::current_path(m_previous); }
  CurrentDirectory(const CurrentDirectory&) = delete;
  CurrentDirectory& operator=(const CurrentDirectory&) = delete;

 private:
  fs::path m_previous;
};

// Joining file, job and base directory is KelMsgPathExplorerTest's.
TEST(KelBasUtlFilePathTest, NormalisesLexically) {
  const struct {
    const char* path;
    const char* base;
    const char* absolute;
  } cases[] = {
      {"/", "/data/base", "/"},
      {"job/", "/data///base/", "/data/base/job"},
      {"../../../..", "/data/base", "/"},
      {".", "/data/base/.", "/data/base"},
      {"", "/", "/"},
      {"", "//", "/"},
      {"//data//base", "/", "/data/base"},
      {"///", "/data", "/"},
      {"./job//sub/../file.dat", "/data///base/", "/data/base/job/file.dat"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Absolute(c.path, c.base), c.absolute) << c.path << " in " << c.base;
}

TEST(KelBasUtlFilePathTest, RelativeOrEmptyBaseIsReadAgainstTheCurrentDirectoryWhenBuilt) {
  ScratchDirectory scratch;
  ScratchDirectory elsewhere;
  const CurrentDirectory inScratch(scratch.Path());
  const std::string here = scratch.Path().string();
  EXPECT_EQ(Absolute("file.dat", "jobs/j1"), here + "/jobs/j1/file.dat");
  EXPECT_EQ(Absolute("file.dat", ""), here + "/file.dat");
  EXPECT_EQ(Absolute("../x", "jobs"), here + "/x");
  const KelBasUtlFilePath none{cow_String(), cow_String()};  // strings without text read as ""
  const CurrentDirectory inElsewhere(elsewhere.Path());
  EXPECT_EQ(std::string(none.AbsolutePathName().GetText()), here);
}

TEST(KelBasUtlFilePathTest, ExistsSeesFilesDirectoriesAndDanglingLinks) {
  ScratchDirectory scratch;
  std::ofstream(scratch / "file.dat") << "x";
  fs::create_directory(scratch / "dir");
  fs::create_symlink(scratch / "missing", scratch / "dangling");
  const cow_String base(scratch.Path().c_str());
  for (const char* present : {"file.dat", "dir", "dir/../file.dat", "dangling"})
    EXPECT_TRUE(KelBasUtlFilePath(cow_String(present), base).Exists()) << present;
  for (const char* absent : {"missing", "dir/missing/file.dat"})
    EXPECT_FALSE(KelBasUtlFilePath(cow_String(absent), base).Exists()) << absent;
}

}  // namespace
