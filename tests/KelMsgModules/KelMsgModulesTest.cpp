#include <KelMsgFeaMessaging/KelMsgModules.h>

#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

// An entry point and the shared count after its call.
using Call = std::pair<void (*)(int&), int>;

// The counters are process-wide, so each sequence is balanced and leaves
// them where it found them.
TEST(KelMsgModulesTest, EachCountsItsFirstInitialiseAndItsBalancingFinalise) {
  const auto up = KelMsgModules_initialize;
  const auto down = KelMsgModules_finalize;
  const auto upC = +[](int&) { KelMsgModules_initializeC(); };
  const auto downC = +[](int&) { KelMsgModules_finalizeC(); };
  const std::vector<Call> sequences[] = {
      // The set, eight siblings, four modules and the specific part.
      {{up, 14}, {up, 14}, {down, 14}, {down, 0}},
      // A module a client holds is counted once, and stays up when the set goes.
      {{KelMsgTypes_initialize, 1}, {up, 14}, {down, 1}, {KelMsgTypes_finalize, 0}},
      // A finalise without its initialise takes the counter below 0.
      {{KelMsgUtils_finalize, 0},
       {KelMsgUtils_initialize, 0},
       {KelMsgUtils_initialize, 1},
       {KelMsgUtils_finalize, 0}},
      {{KelFeaBackbone_initialize, 0}, {KelFeaBackbone_finalize, 0}, {KelFeaBackbone_finalize, 0}},
      // The argument-free pair counts the set on a count of its own.
      {{upC, 0}, {up, 0}, {down, 0}, {downC, 0}, {up, 14}, {down, 0}},
  };
  for (const std::vector<Call>& sequence : sequences) {
    int n = 0;
    for (std::size_t i = 0; i < sequence.size(); ++i) {
      sequence[i].first(n);
      EXPECT_EQ(n, sequence[i].second) << "sequence " << &sequence - sequences << ", call " << i;
    }
  }
}

}  // namespace
