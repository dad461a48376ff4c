#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <vector>

#include <gtest/gtest.h>

namespace {

struct Call {
  void (*entry)(int&);
  int expected;  // the shared count after the call
};

void InitializeC(int&) {
  KelMsgModules_initializeC();
}
void FinalizeC(int&) {
  KelMsgModules_finalizeC();
}

// The counters are process-wide, so each sequence is balanced and leaves
// them where it found them.
TEST(KelMsgModulesTest, EachCountsItsFirstInitialiseAndItsBalancingFinalise) {
  const auto up = KelMsgModules_initialize;
  const auto down = KelMsgModules_finalize;
  const std::vector<Call> sequences[] = {
      // The set, eight siblings, four modules and the specific part.
      {{up, 14}, {up, 14}, {down, 14}, {down, 0}},
      {{KelMsgBackbone_initialize, 1},
       {KelMsgBackbone_initialize, 1},
       {KelMsgBackbone_finalize, 1},
       {KelMsgBackbone_finalize, 0}},
      // A finalise without its initialise takes the counter below 0.
      {{KelMsgUtils_finalize, 0},
       {KelMsgUtils_initialize, 0},
       {KelMsgUtils_initialize, 1},
       {KelMsgUtils_finalize, 0}},
      {{KelFeaBackbone_initialize, 0}, {KelFeaBackbone_finalize, 0}, {KelFeaBackbone_finalize, 0}},
      // A module a client holds stays up when the set goes.
      {{KelMsgTypes_initialize, 1}, {up, 14}, {down, 1}, {KelMsgTypes_finalize, 0}},
      // The argument-free pair counts the set on a count of its own.
      {{InitializeC, 0}, {up, 0}, {down, 0}, {FinalizeC, 0}, {up, 14}, {down, 0}},
  };
  for (std::size_t s = 0; s < std::size(sequences); ++s) {
    int n = 0;
    for (std::size_t i = 0; i < sequences[s].size(); ++i) {
      sequences[s][i].entry(n);
      EXPECT_EQ(n, sequences[s][i].expected) << "sequence " << s << ", call " << i;
    }
  }
}

}  // namespace
