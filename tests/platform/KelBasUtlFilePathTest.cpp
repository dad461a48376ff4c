#include <KelMsgFeaMessaging/KelBasUtlFilePath.h>

#include <unistd.h>

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

TEST(KelBasUtlFilePathTest, RelativePathLiesInBaseAbsolutePathStandsAlone) {
  EXPECT_EQ(Absolute("job/file.dat", "/data/base"), "/data/base/job/file.dat");
  EXPECT_EQ(Absolute("/other/file.dat", "/data/base"), "/other/file.dat");
  EXPECT_EQ(Absolute("/", "/data/base"), "/");
}

TEST(KelBasUtlFilePathTest, NormalisesDotsAndSeparatorsLexically) {
  EXPECT_EQ(Absolute("./job//sub/../file.dat", "/data///base/"), "/data/base/job/file.dat");
  EXPECT_EQ(Absolute("job/", "/data/base"), "/data/base/job");
  EXPECT_EQ(Absolute("../../../..", "/data/base"), "/");
  EXPECT_EQ(Absolute(".", "/data/base/."), "/data/base");
  EXPECT_EQ(Absolute("//data//base", "/"), "/data/base");
  EXPECT_EQ(Absolute("", "//"), "/");
  EXPECT_EQ(Absolute("///", "/data"), "/");
}

TEST(KelBasUtlFilePathTest, EmptyPathNamesTheBase) {
  EXPECT_EQ(Absolute("", "/data/base/"), "/data/base");
  EXPECT_EQ(Absolute("", "/"), "/");
}

TEST(KelBasUtlFilePathTest, RelativeOrEmptyBaseIsReadAgainstTheCurrentDirectory) {
  ScratchDirectory scratch;
  const CurrentDirectory inScratch(scratch.Path());
  const std::string here = scratch.Path().string();
  EXPECT_EQ(Absolute("file.dat", "jobs/j1"), here + "/jobs/j1/file.dat");
  EXPECT_EQ(Absolute("file.dat", ""), here + "/file.dat");
  EXPECT_EQ(Absolute("", ""), here);
  EXPECT_EQ(Absolute("../x", "jobs"), here + "/x");
}

TEST(KelBasUtlFilePathTest, NameIsFixedWhenTheObjectIsBuilt) {
  ScratchDirectory first;
  ScratchDirectory second;
  const CurrentDirectory inFirst(first.Path());
  const KelBasUtlFilePath path(cow_String("file.dat"), cow_String(""));
  {
    const CurrentDirectory inSecond(second.Path());
    EXPECT_EQ(std::string(path.AbsolutePathName().GetText()), first / "file.dat");
  }
}

TEST(KelBasUtlFilePathTest, ExistsSeesFilesDirectoriesAndDanglingLinks) {
  ScratchDirectory scratch;
  std::ofstream(scratch / "file.dat") << "x";
  fs::create_directory(scratch / "dir");
  fs::create_symlink(scratch / "missing", scratch / "dangling");
  const cow_String base(scratch.Path().c_str());

  EXPECT_TRUE(KelBasUtlFilePath(cow_String("file.dat"), base).Exists());
  EXPECT_TRUE(KelBasUtlFilePath(cow_String("dir"), base).Exists());
  EXPECT_TRUE(KelBasUtlFilePath(cow_String("dir/../file.dat"), base).Exists());
  EXPECT_TRUE(KelBasUtlFilePath(cow_String("dangling"), base).Exists());
  EXPECT_FALSE(KelBasUtlFilePath(cow_String("missing"), base).Exists());
  EXPECT_FALSE(KelBasUtlFilePath(cow_String("dir/missing/file.dat"), base).Exists());
}

TEST(KelBasUtlFilePathTest, StringsWithoutTextReadAsEmpty) {
  ScratchDirectory scratch;
  const CurrentDirectory inScratch(scratch.Path());
  EXPECT_EQ(std::string(KelBasUtlFilePath(cow_String(), cow_String()).AbsolutePathName().GetText()),
            scratch.Path().string());
}

}  // namespace
