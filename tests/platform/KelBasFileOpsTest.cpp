#include <KelMsgFeaMessaging/KelBasFileOps.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"

namespace {

// Fopen is used, and tested, by KelMsgPathExplorer's stamps.
TEST(KelBasFileOpsTest, OpenPassesFlagsAndModeOn) {
  ScratchDirectory scratch;
  const std::string path = scratch / "created.bin";
  const mode_t previousMask = ::umask(022);
  const int created = KelBasFileOps::Open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
  ::umask(previousMask);
  ASSERT_GE(created, 0);
  ::close(created);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0640U);
  EXPECT_LT(KelBasFileOps::Open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640), 0);
  EXPECT_EQ(KelBasFileOps::Fopen(KelString((scratch / "no/dir.txt").c_str()), "w"), nullptr);
}

}  // namespace
