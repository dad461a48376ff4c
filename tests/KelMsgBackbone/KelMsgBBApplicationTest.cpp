// KelMsgBBApplication on the in-process bus: what a refused join leaves,
// and when the application leaves.  That a joined application receives
// under its name and sends under it as identifier, the fault and
// file-transfer tests see on every message their controller exchanges.
#include <KelMsgFeaMessaging/KelMsgBBApplication.h>

#include <cstdlib>
#include <utility>

#include <KelMsgFeaMessaging/KelMsgStringType.h>
#include <gtest/gtest.h>

namespace {

class KelMsgBBApplicationTest : public ::testing::Test {
 protected:
  KelMsgBBApplicationTest() { setenv("KELBUS_URL", "local:", 1); }
};

TEST_F(KelMsgBBApplicationTest, AHeldNameIsRefusedUnlessTakenOver) {
  const KelMsgBBApplication holder("solver");
  const KelMsgBBApplication refused("solver");
  EXPECT_EQ(refused.Result(), KELBUS_ERR_NAME_HELD);
  EXPECT_FALSE(refused.Joined());
  EXPECT_NE(refused.Communicator(), 0) << "registered, though not declared";
  EXPECT_TRUE(KelMsgBBApplication("solver", 1).Joined());

  setenv("KELBUS_URL", "nowhere:", 1);
  const KelMsgBBApplication lost("solver");
  EXPECT_EQ(lost.Result(), KELBUS_ERR_URL);
  EXPECT_EQ(lost.Communicator(), 0);
}

TEST_F(KelMsgBBApplicationTest, LeavesWhenDestroyedOrReplacedButNotWhenMovedFrom) {
  KelMsgBBApplication first("solver");
  KelMsgBBApplication moved(std::move(first));
  EXPECT_EQ(first.Communicator(), 0);  // NOLINT(bugprone-use-after-move): what is left
  { const KelMsgBBApplication empty(std::move(first)); }
  EXPECT_EQ(moved.Send("solver", KelMsgStringType()), KELBUS_OK);
  EXPECT_FALSE(KelMsgBBApplication("solver").Joined());

  moved = KelMsgBBApplication("mesher");
  EXPECT_STREQ(moved.Name(), "mesher");
  EXPECT_TRUE(moved.Joined());
  EXPECT_TRUE(KelMsgBBApplication("solver").Joined()) << "the name was given back";
}

}  // namespace
