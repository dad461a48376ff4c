#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <vector>

#include <gtest/gtest.h>

namespace {

// The counters are process-wide, so each sequence here is balanced and
// leaves them where it found them.

struct Call {
  void (*entry)(int&);
  int expected;  // the shared count after the call
};

TEST(KelMsgModulesTest, EachCountsItsFirstInitialiseAndItsBalancingFinalise) {
  const std::vector<Call> sequences[] = {
      // The set, eight siblings, four modules and the specific part.
      {{KelMsgModules_initialize, 14},
       {KelMsgModules_initialize, 14},
       {KelMsgModules_finalize, 14},
       {KelMsgModules_finalize, 0}},
      {{KelMsgBackbone_initialize, 1},
       {KelMsgBackbone_initialize, 1},
       {KelMsgBackbone_finalize, 1},
       {KelMsgBackbone_finalize, 0}},
      // An unbalanced finalise takes the counter below 0, so the next
      // initialise only brings it back to 0.
      {{KelMsgUtils_finalize, 0},
       {KelMsgUtils_initialize, 0},
       {KelMsgUtils_initialize, 1},
       {KelMsgUtils_finalize, 0}},
      // The former backbone's entry points count nothing.
      {{KelFeaBackbone_initialize, 0}, {KelFeaBackbone_finalize, 0}, {KelFeaBackbone_finalize, 0}},
  };
  for (std::size_t s = 0; s < std::size(sequences); ++s) {
    int n = 0;
    for (std::size_t i = 0; i < sequences[s].size(); ++i) {
      sequences[s][i].entry(n);
      EXPECT_EQ(n, sequences[s][i].expected) << "sequence " << s << ", call " << i;
    }
  }
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

}  // namespace
