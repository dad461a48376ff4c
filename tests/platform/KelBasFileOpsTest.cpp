#include <KelMsgFeaMessaging/KelBasFileOps.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"

namespace {

std::string Contents(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(KelBasFileOpsTest, FopenOpensLikeFopen) {
  ScratchDirectory scratch;
  const std::string path = scratch / "out.txt";
  FILE* out = KelBasFileOps::Fopen(KelString(path.c_str()), "w");
  ASSERT_NE(out, nullptr);
  std::fputs("written", out);
  std::fclose(out);
  EXPECT_EQ(Contents(path), "written");

  FILE* in = KelBasFileOps::Fopen(KelString(path.c_str()), "r");
  ASSERT_NE(in, nullptr);
  std::fclose(in);
}

TEST(KelBasFileOpsTest, FopenFailsWithNull) {
  ScratchDirectory scratch;
  EXPECT_EQ(KelBasFileOps::Fopen(KelString((scratch / "no/such/dir.txt").c_str()), "w"), nullptr);
  EXPECT_EQ(KelBasFileOps::Fopen(KelString((scratch / "absent.txt").c_str()), "r"), nullptr);
  EXPECT_EQ(KelBasFileOps::Fopen(KelString(), "r"), nullptr);
}

TEST(KelBasFileOpsTest, OpenCreatesTruncatesAndReads) {
  ScratchDirectory scratch;
  const std::string path = scratch / "target.bin";
  std::ofstream(path) << "old contents";
  const mode_t previousMask = ::umask(022);

  const int written = KelBasFileOps::Open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
  ASSERT_GE(written, 0);
  ASSERT_EQ(::write(written, "new", 3), 3);
  ::close(written);
  EXPECT_EQ(Contents(path), "new");

  const std::string created = scratch / "created.bin";
  const int fresh = KelBasFileOps::Open(created.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
  ASSERT_GE(fresh, 0);
  ::close(fresh);
  ::umask(previousMask);
  struct stat status {};
  ASSERT_EQ(::stat(created.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);

  const int reading = KelBasFileOps::Open(path.c_str(), O_RDONLY, 0640);
  ASSERT_GE(reading, 0);
  char buffer[8] = {};
  EXPECT_EQ(::read(reading, buffer, sizeof buffer), 3);
  ::close(reading);
}

TEST(KelBasFileOpsTest, OpenOfMissingFileIsNegative) {
  ScratchDirectory scratch;
  EXPECT_LT(KelBasFileOps::Open((scratch / "absent.bin").c_str(), O_RDONLY, 0640), 0);
  EXPECT_LT(KelBasFileOps::Open((scratch / "no/dir.bin").c_str(), O_RDWR | O_CREAT, 0640), 0);
}

}  // namespace
