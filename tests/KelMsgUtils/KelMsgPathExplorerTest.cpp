#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"
#include "TestFiles.h"

namespace fs = std::filesystem;

namespace {

class KelMsgPathExplorerTest : public ::testing::Test {
 protected:
  KelMsgPathExplorerTest() { fs::create_directories(m_scratch / "jobs/job42"); }

  ScratchDirectory m_scratch;
  const std::string m_base = m_scratch.Path();
};

TEST_F(KelMsgPathExplorerTest, FormPathPutsTheFileInTheJobDirectoryInTheBase) {
  const struct {
    KelString base, job, file;
    std::string path;
  } cases[] = {
      {m_base.c_str(), "jobs/job42", "mesh.dat", m_base + "/jobs/job42/mesh.dat"},
      {"/base/", "./job//", "sub/../mesh.dat", "/base/job/mesh.dat"},
      {m_base.c_str(), "/elsewhere/job", "mesh.dat", "/elsewhere/job/mesh.dat"},
      {m_base.c_str(), "jobs/job42", "/tmp/mesh.dat", "/tmp/mesh.dat"},
      {m_base.c_str(), "", "mesh.dat", m_base + "/mesh.dat"},
      {m_base.c_str(), KelString(), KelString(), m_base},
  };
  for (const auto& c : cases)
    EXPECT_STREQ(KelMsgPathExplorer::FormPath(c.base, c.job, c.file).GetUTF8(), c.path.c_str());

  const KelString stampName("job42");
  EXPECT_STREQ(KelMsgPathExplorer::FormStampPath(m_base.c_str(), "jobs/job42", stampName).GetUTF8(),
               (m_base + "/jobs/job42/job42.stamp").c_str());
  EXPECT_STREQ(stampName.GetUTF8(), "job42") << "the caller's string is left alone";
}

// Two applications name one directory differently: one through a symbolic
// link to the other's base directory, the other through the real path.
TEST_F(KelMsgPathExplorerTest, AStampMadeThroughALinkShowsThroughTheRealPathUntilRemoved) {
  fs::create_symlink(m_scratch.Path(), m_scratch / "linked");
  fs::create_directories(m_scratch / "jobs/other");
  const KelString base(m_base.c_str());
  const KelString linked((m_scratch / "linked").c_str());
  const std::string stamp = m_scratch / "jobs/job42/handshake.stamp";
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(base, "jobs/job42", "handshake"));
  const std::ptrdiff_t descriptors = OpenDescriptors();
  EXPECT_EQ(KelMsgPathExplorer::StampPath(linked, "jobs/job42", "handshake"), 0);
  EXPECT_EQ(OpenDescriptors(), descriptors) << "the stamp was left open";
  WriteFile(stamp, "left behind");
  EXPECT_EQ(KelMsgPathExplorer::StampPath(linked, "jobs/job42", "handshake"), 0);
  EXPECT_EQ(fs::file_size(stamp), 0U) << "a stamp is empty, also when stamped again";
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(base, "jobs/job42", "handshake"));
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(base, "jobs/other/../job42", "handshake"))
      << "testing must not remove the stamp";
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(base, "jobs/other", "handshake"));
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(base, "jobs/job42", "Handshake"));
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(base, "jobs/job42", "handshake"), 0);
  EXPECT_FALSE(fs::exists(stamp));
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(linked, "jobs/job42", "handshake"));
}

TEST_F(KelMsgPathExplorerTest, MissingStampsAndDirectoriesAreNoError) {
  const KelString base(m_base.c_str());
  const std::string neighbour = m_scratch / "jobs/job42/job42";
  WriteFile(neighbour, "keep");
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(base, "jobs/job42", "job42"), 0);
  EXPECT_TRUE(fs::exists(neighbour));
  EXPECT_EQ(KelMsgPathExplorer::StampPath(base, "no/such/job", "job42"), 0);
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(base, "no/such/job", "job42"));
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(base, "no/such/job", "job42"), 0);
  EXPECT_FALSE(fs::exists(m_scratch / "no"));
}

}  // namespace
