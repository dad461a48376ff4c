#include <KelMsgFeaMessaging/KelMsgPathExplorer.h>

#include <tuple>

#include <gtest/gtest.h>

#include "ScratchDirectory.h"
#include "TestFiles.h"

namespace fs = std::filesystem;

TEST(KelMsgPathExplorerTest, FormPathPutsTheFileInTheJobDirectoryInTheBase) {
  // base, job, file, path
  const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
      {"/base", "jobs/job42", "mesh.dat", "/base/jobs/job42/mesh.dat"},
      {"/base/", "./job//", "sub/../mesh.dat", "/base/job/mesh.dat"},
      {"/base", "/elsewhere/job", "mesh.dat", "/elsewhere/job/mesh.dat"},
      {"/base", "jobs/job42", "/tmp/mesh.dat", "/tmp/mesh.dat"},
      {"/base", "", "mesh.dat", "/base/mesh.dat"},
      {"/base", nullptr, nullptr, "/base"},
  };
  for (const auto& [base, job, file, path] : cases)
    EXPECT_STREQ(KelMsgPathExplorer::FormPath(base, job, file).GetUTF8(), path);

  const KelString stampName("job42");
  EXPECT_STREQ(KelMsgPathExplorer::FormStampPath("/base", "jobs/job42", stampName).GetUTF8(),
               "/base/jobs/job42/job42.stamp");
  EXPECT_STREQ(stampName.GetUTF8(), "job42") << "the caller's string is left alone";
}

// Two applications name one directory differently: one through a symbolic
// link to the other's base directory, the other through the real path.
// Missing stamps and directories are no error.
TEST(KelMsgPathExplorerTest, StampsShowThroughLinksUntilRemovedAndMissingOnesAreNoError) {
  ScratchDirectory scratch;
  fs::create_directories(scratch / "jobs/job42");
  fs::create_directories(scratch / "jobs/other");
  fs::create_symlink(scratch.Path(), scratch / "linked");
  const KelString base(scratch.Path().c_str());
  const KelString linked((scratch / "linked").c_str());
  const std::string stamp = scratch / "jobs/job42/handshake.stamp";
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

  const std::string neighbour = scratch / "jobs/job42/handshake";
  WriteFile(neighbour, "keep");
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(base, "jobs/job42", "handshake"), 0);
  EXPECT_TRUE(fs::exists(neighbour));
  EXPECT_EQ(KelMsgPathExplorer::StampPath(base, "no/such/job", "handshake"), 0);
  EXPECT_FALSE(KelMsgPathExplorer::IsSharedPath(base, "no/such/job", "handshake"));
  EXPECT_EQ(KelMsgPathExplorer::RemoveStampFile(base, "no/such/job", "handshake"), 0);
  EXPECT_FALSE(fs::exists(scratch / "no"));
}
