// stamp, shared and unstamp, as a shell script uses them.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ScratchDirectory.h"

namespace fs = std::filesystem;

namespace {

// Two names for one directory, the real one and a symbolic link to it, and
// another directory; relative bases are read against the working directory.
// What a stamp is and when it shows is KelMsgPathExplorerTest's.
TEST(KelmsgPathCommands, StampsTellASharedDirectoryFromAnotherOne) {
  const ScratchDirectory scratch;
  fs::create_directories(scratch / "real/job42");
  fs::create_directories(scratch / "other/job42");
  fs::create_directory_symlink(scratch / "real", scratch / "link");
  const auto run = [&](const std::vector<std::string>& arguments) {
    return RunKelmsg(arguments, scratch.Path());
  };
  const KelmsgResult stamp = run({"stamp", "real", "job42", "monitor"});
  ASSERT_EQ(stamp.status, 0) << stamp.err;
  const std::string stampFile = scratch / "real/job42/monitor.stamp";
  EXPECT_EQ(stamp.out, stampFile + "\n");

  const KelmsgResult throughLink = run({"shared", scratch / "link", "job42", "monitor"});
  EXPECT_EQ(throughLink.status, 0);
  EXPECT_EQ(throughLink.out, "shared: " + (scratch / "link/job42/monitor.stamp") + "\n");
  EXPECT_EQ(run({"shared", ".", "link/job42", "monitor"}).status, 0);
  const KelmsgResult elsewhere = run({"shared", "other", "job42", "monitor"});
  EXPECT_EQ(elsewhere.status, 1);
  EXPECT_EQ(elsewhere.out, "not shared: " + (scratch / "other/job42/monitor.stamp") + "\n");
  EXPECT_EQ(elsewhere.err, "");

  EXPECT_EQ(run({"unstamp", "link", "job42", "monitor"}).status, 0);
  EXPECT_FALSE(fs::exists(stampFile));
  EXPECT_EQ(run({"unstamp", "real", "job42", "monitor"}).status, 0)
      << "removing a stamp that is not there is no failure";
}

}  // namespace
