// The copy-on-write map against std::map as a model, over a seeded run of
// inserts, removals, lookups, writes through Find, copies and assignments
// between maps that share nodes.  After every step each map holds its
// model's entries in order both ways, every height follows from the
// children's, and every count cell counts the handles that refer to its
// node.
#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <utility>
#include <vector>

namespace {

using IntMap = cow_Btree<int, int>;
using Handle = IntMap::Handle;
using Entries = std::vector<std::pair<int, int>>;
// The handles that refer to each node.
using Holders = std::map<const IntMap::Node*, std::vector<const Handle*>>;

Entries Walk(const IntMap& map, bool forward) {
  Entries entries;
  cow_BtreeIterator<int, int> entry(map);
  entry.Last();  // a start drops the path walked before
  for (forward ? entry.First() : entry.Last(); !entry.AtEnd();
       forward ? entry.Next() : entry.Previous()) {
    entries.emplace_back(entry.Key(), entry.Value());
  }
  return entries;
}

// Adds `handle` and, on a node's first visit, the handles below it.
void Collect(const Handle* handle, Holders& holders) {
  if (handle == nullptr)
    return;
  auto& list = holders[handle->Referent()];
  list.push_back(handle);
  if (list.size() == 1) {
    Collect(handle->Referent()->Left(), holders);
    Collect(handle->Referent()->Right(), holders);
  }
}

int HeightOf(const Handle* child) {
  return child == nullptr ? -1 : child->Referent()->Height();
}

TEST(CowBtree, BehavesLikeStdMapAcrossCopiesThatShareNodes) {
  std::mt19937 random(1);
  const auto pick = [&random](int bound) { return static_cast<int>(random() % bound); };
  std::vector<std::pair<IntMap, std::map<int, int>>> maps(3);
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const int i = pick(3);
    auto& [map, model] = maps[i];
    const int key = pick(64);
    const int value = pick(1000);
    const int operation = pick(9);
    if (operation < 3) {
      EXPECT_EQ(map.InsertUnlessMember(key, value), model.emplace(key, value).second);
    } else if (operation < 5) {
      EXPECT_EQ(map.Remove(key), model.erase(key) == 1);
    } else if (operation < 7) {
      const bool member = model.count(key) == 1;
      const int* found = map.ConstFind(key);
      EXPECT_EQ(map.IsMember(key), member);
      EXPECT_EQ(found ? *found : -1, member ? model[key] : -1);
      int* writable = map.Find(key);
      ASSERT_EQ(writable != nullptr, member);
      if (member)
        *writable = model[key] = value;
    } else if (operation == 7) {
      maps[pick(3)] = {IntMap(map), model};
    } else {
      maps[pick(3)] = maps[i];  // also onto itself
    }
    Holders holders;
    for (const auto& [each, expected] : maps) {
      const Entries entries(expected.begin(), expected.end());
      EXPECT_EQ(each.Count(), entries.size());
      EXPECT_EQ(Walk(each, true), entries);
      EXPECT_EQ(Walk(each, false), Entries(entries.rbegin(), entries.rend()));
      Collect(each.Root(), holders);
    }
    for (const auto& [node, handles] : holders) {
      // A removal through a successor deeper than the right child leaves the
      // heights above the successor's parent as they were: they may only be
      // too great.
      EXPECT_GE(node->Height(), std::max(HeightOf(node->Left()), HeightOf(node->Right())) + 1);
      for (const Handle* handle : handles)
        EXPECT_EQ(handle->RefCount(), handles.size());
    }
  }
}

// A subtree two taller on one side turns once, at the fourth key of 1, 2,
// 3, 4; a lean of one, 1(,2(,3)), does not.  Keys in order, which leave a
// map without rotations a list, stay shallow.
TEST(CowBtree, RotatesWhereOneSideIsTwoTallerAndStaysShallow) {
  IntMap rising;
  IntMap falling;
  std::vector<int> roots;
  for (int key = 1; key <= 1024; ++key) {
    rising.InsertUnlessMember(key, key);
    falling.InsertUnlessMember(-key, key);
    roots.push_back(rising.Root()->Referent()->Key());
  }
  EXPECT_EQ(std::vector<int>(roots.begin(), roots.begin() + 4), (std::vector<int>{1, 1, 1, 2}));
  EXPECT_EQ(HeightOf(rising.Root()), 10) << "as shallow as 1024 keys can be";
  EXPECT_EQ(HeightOf(falling.Root()), 10);
}

}  // namespace
