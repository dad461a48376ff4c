#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"

namespace fs = std::filesystem;

namespace {

std::string Text(const KelString& string) {
  return string.GetUTF8();
}

class KelMsgPathExplorerTest : public ::testing::Test {
 protected:
  KelMsgPathExplorerTest() : m_base(m_scratch.Path().c_str()) {
    fs::create_directories(m_scratch / "jobs/job42");
  }

  ScratchDirectory m_scratch;
  const KelString m_base;
};

TEST_F(KelMsgPathExplorerTest, FormPathPutsTheFileInTheJobDirectoryInTheBase) {
  const std::string base = m_scratch.Path().string();
  const struct {
    KelString base, job, file;
    std::string path;
  } cases[] = {
      {m_base, "jobs/job42", "mesh.dat", base + "/jobs/job42/mesh.dat"},
      {"/base/", "./job//", "sub/../mesh.dat", "/base/job/mesh.dat"},
      {m_base, "/elsewhere/job", "mesh.dat", "/elsewhere/job/mesh.dat"},
      {m_base, "jobs/job42", "/tmp/mesh.dat", "/tmp/mesh.dat"},
      {m_base, "", "mesh.dat", base + "/mesh.dat"},
      {m_base, KelString(), KelString(), base},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Text(KelMsgPathExplorer::FormPath(c.base, c.job, c.file)), c.path);

  const KelString stampName("job42");
  EXPECT_EQ(Text(KelMsgPathExplorer::FormStampPath(m_base, "jobs/job42", stampName)),
            base + "/jobs/job42/job42.stamp");
  EXPECT_EQ(Text(stampName), "job42") << "the caller's string is left alone";
}

TEST_F(KelMsgPathExplorerTest, StampLifecycle) {
  const std::string stamp = m_scratch / "jobs/job42/job42.stamp";
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "job42"));
  EXPECT_EQ(KelMsgPathExplorer::StampPath(m_base, "jobs/job42", "job42"), 0);
  ASSERT_TRUE(fs::is_regular_file(stamp));
  std::ofstream(stamp) << "left behind";
  EXPECT_EQ(KelMsgPathExplorer::StampPath(m_base, "jobs/job42", "job42"), 0);
  EXPECT_EQ(fs::file_size(stamp), 0U) << "a stamp is empty, also when stamped again";
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "job42"));
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "job42"))
      << "testing must not remove the stamp";
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(m_base, "jobs/job42", "job42"), 0);
  EXPECT_FALSE(fs::exists(stamp));
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "job42"));
}

// Two applications name one directory differently: one through a symbolic
// link to the other's base directory, the other through the real path.
TEST_F(KelMsgPathExplorerTest, TriplesThroughALinkNameTheSameDirectory) {
  fs::create_symlink(m_scratch.Path(), m_scratch / "linked-base");
  const KelString linkedBase((m_scratch / "linked-base").c_str());
  fs::create_directories(m_scratch / "jobs/other");

  KelMsgPathExplorer::StampPath(linkedBase, "jobs/job42", "handshake");
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "handshake"));
  EXPECT_TRUE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/other/../job42", "handshake"));
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/other", "handshake"));
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(m_base, "jobs/job42", "Handshake"));

  KelMsgPathExplorer::RemoveStampFile(m_base, "jobs/job42", "handshake");
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(linkedBase, "jobs/job42", "handshake"));
}

TEST_F(KelMsgPathExplorerTest, MissingStampsAndDirectoriesAreNoError) {
  const std::string neighbour = m_scratch / "jobs/job42/job42";
  std::ofstream(neighbour) << "keep";
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(m_base, "jobs/job42", "job42"), 0);
  EXPECT_TRUE(fs::exists(neighbour));
  EXPECT_EQ(KelMsgPathExplorer::StampPath(m_base, "no/such/job", "job42"), 0);
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(m_base, "no/such/job", "job42"));
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(m_base, "no/such/job", "job42"), 0);
  EXPECT_FALSE(fs::exists(m_scratch / "no"));
}

}  // namespace
