// find-port, stamp, shared and unstamp, as a shell script uses them.
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "KelmsgProcess.h"
#include "ListeningSocket.h"
#include "ScratchDirectory.h"

namespace fs = std::filesystem;

namespace {

TEST(KelmsgFindPort, PassesOverATakenPort) {
  const HeldPortPair held = HoldAdjacentPorts();
  ASSERT_TRUE(held.low) << "no two adjacent free ports";
  const std::string low = std::to_string(held.low->Port());
  const std::string high = std::to_string(held.high->Port());
  held.high->Close();

  const KelmsgResult found = RunKelmsg({"find-port", low + "-" + high});
  EXPECT_EQ(found.status, 0) << found.err;
  EXPECT_EQ(found.out, high + "\n");

  const KelmsgResult none = RunKelmsg({"find-port", low});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.err, "kelmsg find-port: no free port in " + low + "\n");
  EXPECT_EQ(none.out, "");
}

TEST(KelmsgFindPort, RefusesAListWithoutPorts) {
  const KelmsgResult result = RunKelmsg({"find-port", "ports,please"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "kelmsg find-port: no port in the list \"ports,please\"\n");
}

// Two names for one directory: the real one and a symbolic link to it.
class KelmsgStamps : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(m_scratch.Path() / "real" / "job42");
    fs::create_directory_symlink(m_scratch.Path() / "real", m_scratch.Path() / "link");
    fs::create_directories(m_scratch.Path() / "other" / "job42");
  }
  std::string Base(const char* name) const { return m_scratch / name; }
  ScratchDirectory m_scratch;
};

TEST_F(KelmsgStamps, TellASharedDirectoryFromAnotherOne) {
  const KelmsgResult stamp = RunKelmsg({"stamp", Base("real"), "job42", "monitor"});
  ASSERT_EQ(stamp.status, 0) << stamp.err;
  const std::string stampFile = Base("real") + "/job42/monitor.stamp";
  EXPECT_EQ(stamp.out, stampFile + "\n");
  EXPECT_TRUE(fs::is_regular_file(stampFile));
  EXPECT_EQ(fs::file_size(stampFile), 0u);

  const KelmsgResult throughLink = RunKelmsg({"shared", Base("link"), "job42", "monitor"});
  EXPECT_EQ(throughLink.status, 0);
  EXPECT_EQ(throughLink.out, "shared: " + Base("link") + "/job42/monitor.stamp\n");

  const KelmsgResult elsewhere = RunKelmsg({"shared", Base("other"), "job42", "monitor"});
  EXPECT_EQ(elsewhere.status, 1);
  EXPECT_EQ(elsewhere.out, "not shared: " + Base("other") + "/job42/monitor.stamp\n");
  EXPECT_EQ(elsewhere.err, "");

  const KelmsgResult unstamp = RunKelmsg({"unstamp", Base("link"), "job42", "monitor"});
  EXPECT_EQ(unstamp.status, 0) << unstamp.err;
  EXPECT_FALSE(fs::exists(stampFile));
  EXPECT_EQ(RunKelmsg({"shared", Base("real"), "job42", "monitor"}).status, 1);
  EXPECT_EQ(RunKelmsg({"unstamp", Base("real"), "job42", "monitor"}).status, 0)
      << "removing a stamp that is not there is no failure";
}

TEST_F(KelmsgStamps, SayWhenTheStampCannotBeMade) {
  const KelmsgResult result = RunKelmsg({"stamp", Base("real"), "no-such-job", "monitor"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kelmsg stamp: cannot create " + Base("real") + "/no-such-job/monitor.stamp\n");
}

TEST_F(KelmsgStamps, ReadARelativeBaseAgainstTheCurrentDirectory) {
  ASSERT_EQ(RunKelmsg({"stamp", "real", "job42", "solver"}, m_scratch.Path()).status, 0);
  EXPECT_TRUE(fs::exists(Base("real") + "/job42/solver.stamp"));
  EXPECT_EQ(RunKelmsg({"shared", ".", "link/job42", "solver"}, m_scratch.Path()).status, 0);
}

}  // namespace
