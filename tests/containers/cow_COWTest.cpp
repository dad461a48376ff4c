// Copy-on-write handles on their own: self-assignment, and unsharing when
// the copy left the writer alone.  AddressSanitizer checks every read.
#include <KelMsgFeaMessaging/cow_COW.h>
#include <KelMsgFeaMessaging/cow_Direct.h>
#include <gtest/gtest.h>

namespace {

struct Probe {
  int value;
};

TEST(CowHandle, AssigningASoleHolderToItselfKeepsTheReferent) {
  cow_COW<Probe, cow_Direct<Probe>> handle(new Probe{3});
  const auto& alias = handle;
  handle = alias;  // the count is taken before it is given up
  EXPECT_EQ(handle.RefCount(), 1u);
  EXPECT_EQ(handle.Referent()->value, 3);
}

// A copy policy that, while copying, destroys the other holder of the
// original: the writer is then its sole holder and keeps the original's cell.
struct DroppingCopy {
  static Probe* Copy(const Probe& original);
};
using DroppingHandle = cow_COW<Probe, DroppingCopy>;
DroppingHandle* g_droppedOnCopy = nullptr;

Probe* DroppingCopy::Copy(const Probe& original) {
  delete g_droppedOnCopy;
  g_droppedOnCopy = nullptr;
  return new Probe(original);
}

TEST(CowHandle, GetKeepsTheCellWhenTheCopyLeftItTheSoleHolder) {
  DroppingHandle writer(new Probe{5});
  g_droppedOnCopy = new DroppingHandle(writer);
  ASSERT_EQ(writer.RefCount(), 2u);
  const Probe* original = writer.Referent();
  const Probe* copy = writer.Get();  // frees the original
  EXPECT_NE(copy, original);
  EXPECT_EQ(copy->value, 5);
  EXPECT_EQ(writer.RefCount(), 1u);
}

}  // namespace
