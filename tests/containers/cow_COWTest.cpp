// Copy-on-write handles on their own: self-assignment, unsharing when the
// copy left the writer alone, and the one-level copy of a tree node.
#include <KelMsgFeaMessaging/cow_Btree.h>
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
  EXPECT_EQ(handle.Referent()->value, 3);  // AddressSanitizer checks the read
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

  const Probe* copy = writer.Get();  // the original is freed (AddressSanitizer checks)
  EXPECT_NE(copy, original);
  EXPECT_EQ(copy->value, 5);
  EXPECT_EQ(writer.RefCount(), 1u);
  EXPECT_EQ(g_droppedOnCopy, nullptr);
}

TEST(CowHandle, NodeCopyIsOneLevelDeep) {
  cow_Btree<int, int> map;
  for (int key : {2, 1, 3})
    map.InsertUnlessMember(key, key * 10);
  const auto* root = map.Root()->Referent();
  {
    cow_Btree<int, int>::Handle copy(*root);
    const auto* node = copy.Referent();
    ASSERT_NE(node, root);
    EXPECT_EQ(copy.RefCount(), 1u);
    EXPECT_EQ(node->Key(), 2);
    EXPECT_EQ(node->Value(), 20);
    EXPECT_EQ(node->Height(), root->Height());
    // New handle objects, same children, one more holder each.
    ASSERT_NE(node->Left(), root->Left());
    EXPECT_EQ(node->Left()->Referent(), root->Left()->Referent());
    EXPECT_EQ(node->Right()->Referent(), root->Right()->Referent());
    EXPECT_EQ(root->Left()->RefCount(), 2u);
    EXPECT_EQ(root->Right()->RefCount(), 2u);
  }
  EXPECT_EQ(root->Left()->RefCount(), 1u);
  EXPECT_EQ(root->Right()->RefCount(), 1u);
}

}  // namespace
