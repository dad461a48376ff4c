#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <KelMsgFeaMessaging/KelMsgAnalysisState.h>
#include <gtest/gtest.h>

namespace {

// The counters are process-wide, so each sequence here is balanced and
// leaves them where it found them.

TEST(KelMsgModulesTest, TheSetCountsFourteenOnceAndUnwindsOnTheBalancingCall) {
  int n = 0;
  KelMsgModules_initialize(n);
  EXPECT_EQ(n, 14) << "the set, eight siblings, four modules and the specific part";
  KelMsgModules_initialize(n);
  EXPECT_EQ(n, 14);
  KelMsgModules_finalize(n);
  EXPECT_EQ(n, 14);
  KelMsgModules_finalize(n);
  EXPECT_EQ(n, 0);
}

TEST(KelMsgModulesTest, AModuleInitialisedTwiceCountsOnce) {
  int n = 0;
  KelMsgBackbone_initialize(n);
  KelMsgBackbone_initialize(n);
  EXPECT_EQ(n, 1);
  KelMsgBackbone_finalize(n);
  EXPECT_EQ(n, 1);
  KelMsgBackbone_finalize(n);
  EXPECT_EQ(n, 0);
}

TEST(KelMsgModulesTest, AModuleHeldByAClientOutlivesTheSet) {
  int client = 0;
  int set = 0;
  KelMsgTypes_initialize(client);
  KelMsgModules_initialize(set);
  EXPECT_EQ(set, 13) << "KelMsgTypes was already up";
  KelMsgModules_finalize(set);
  EXPECT_EQ(set, 0);
  KelMsgTypes_finalize(client);
  EXPECT_EQ(client, 0) << "the client's finalise, not the set's, was the last one";
}

TEST(KelMsgModulesTest, UnbalancedFinaliseLeavesTheNextInitialiseUncounted) {
  int n = 0;
  KelMsgUtils_finalize(n);
  EXPECT_EQ(n, 0) << "the counter went below 0";
  KelMsgUtils_initialize(n);
  EXPECT_EQ(n, 0) << "back to 0, not from 0 to 1";
  KelMsgUtils_initialize(n);
  EXPECT_EQ(n, 1);
  KelMsgUtils_finalize(n);
  EXPECT_EQ(n, 0);
}

TEST(KelMsgModulesTest, FormerBackboneEntryPointsLeaveTheCountAlone) {
  int n = 5;
  KelFeaBackbone_initialize(n);
  KelFeaBackbone_finalize(n);
  KelFeaBackbone_finalize(n);
  EXPECT_EQ(n, 5);
}

TEST(KelMsgModulesTest, ArgumentFreeEntryPointsBalance) {
  int n = 0;
  KelMsgModules_initializeC();
  KelMsgModules_initialize(n);
  EXPECT_EQ(n, 0) << "the set is already up through the process-wide count";
  KelMsgModules_finalize(n);
  KelMsgModules_finalizeC();
  KelMsgModules_initialize(n);
  EXPECT_EQ(n, 14) << "the C pair brought the set fully down again";
  KelMsgModules_finalize(n);
}

TEST(KelMsgAnalysisStateTest, KeepsTheLastValue) {
  EXPECT_EQ(KelMsgAnalysisState::GetPercentage(), 0.0);
  KelMsgAnalysisState::SetPercentage(42.5);
  EXPECT_EQ(KelMsgAnalysisState::GetPercentage(), 42.5);
  KelMsgAnalysisState::SetPercentage(-3.0);
  EXPECT_EQ(KelMsgAnalysisState::GetPercentage(), -3.0);
}

}  // namespace
