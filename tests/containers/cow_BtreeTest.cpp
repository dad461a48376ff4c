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
#include <string>
#include <utility>
#include <vector>

namespace {

using IntMap = cow_Btree<int, int>;
using Node = IntMap::Node;
using Handle = IntMap::Handle;
using Entries = std::vector<std::pair<int, int>>;

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

// The handles that refer to each node reachable from the maps.
std::map<const Node*, std::vector<const Handle*>> Holders(const std::vector<IntMap>& maps) {
  std::map<const Node*, std::vector<const Handle*>> holders;
  std::vector<const Handle*> pending;
  for (const IntMap& map : maps)
    pending.push_back(map.Root());
  while (!pending.empty()) {
    const Handle* handle = pending.back();
    pending.pop_back();
    if (handle == nullptr)
      continue;
    auto& list = holders[handle->Referent()];
    list.push_back(handle);
    if (list.size() == 1) {
      pending.push_back(handle->Referent()->Left());
      pending.push_back(handle->Referent()->Right());
    }
  }
  return holders;
}

int HeightOf(const Handle* child) {
  return child == nullptr ? -1 : child->Referent()->Height();
}

TEST(CowBtree, BehavesLikeStdMapAcrossCopiesThatShareNodes) {
  std::mt19937 random(1);
  const auto pick = [&random](int bound) { return static_cast<int>(random() % bound); };
  std::vector<IntMap> maps(3);
  std::vector<std::map<int, int>> models(3);
  for (int step = 0; step < 4000 && !HasFailure(); ++step) {
    SCOPED_TRACE(step);
    const int i = pick(3);
    const int j = pick(3);
    const int key = pick(64);
    const int value = pick(1000);
    IntMap& map = maps[i];
    std::map<int, int>& model = models[i];
    const int operation = pick(9);
    if (operation < 3) {
      EXPECT_EQ(map.InsertUnlessMember(key, value), model.emplace(key, value).second);
    } else if (operation < 5) {
      EXPECT_EQ(map.Remove(key), model.erase(key) == 1);
    } else if (operation == 5) {
      int* found = map.Find(key);
      ASSERT_EQ(found != nullptr, model.count(key) == 1);
      if (found != nullptr)
        *found = model[key] = value;
    } else if (operation == 6) {
      const int* found = map.ConstFind(key);
      EXPECT_EQ(map.IsMember(key), model.count(key) == 1);
      EXPECT_EQ(found ? *found : -1, model.count(key) ? model[key] : -1);
    } else {
      if (operation == 7)
        maps[j] = IntMap(map);
      else
        maps[j] = map;  // also onto itself
      models[j] = model;
    }
    for (std::size_t m = 0; m < maps.size(); ++m) {
      const Entries expected(models[m].begin(), models[m].end());
      EXPECT_EQ(maps[m].Count(), expected.size());
      EXPECT_EQ(Walk(maps[m], true), expected);
      EXPECT_EQ(Walk(maps[m], false), Entries(expected.rbegin(), expected.rend()));
    }
    for (const auto& [node, holders] : Holders(maps)) {
      // A removal through a successor deeper than the right child leaves the
      // heights above the successor's parent as they were: they may only be
      // too great.
      const int left = HeightOf(node->Left()) + 1;
      const int right = HeightOf(node->Right()) + 1;
      EXPECT_GE(node->Height(), std::max(left, right));
      for (const Handle* handle : holders)
        EXPECT_EQ(handle->RefCount(), holders.size());
    }
  }
}

// The tree written out as key(left,right); a leaf is its key alone.
std::string Shape(const Handle* handle) {
  if (handle == nullptr)
    return "";
  const Node* node = handle->Referent();
  const std::string key = std::to_string(node->Key());
  if (node->Left() == nullptr && node->Right() == nullptr)
    return key;
  return key + "(" + Shape(node->Left()) + "," + Shape(node->Right()) + ")";
}

// A subtree two taller on one side turns once; a lean of one does not.
// Keys in order, which leave a map without rotations a list, stay shallow.
TEST(CowBtree, RotatesWhereOneSideIsTwoTallerAndStaysShallow) {
  const std::pair<int, const char*> cases[] = {{3, "1(,2(,3))"}, {4, "2(1,3(,4))"}};
  for (const auto& [keys, shape] : cases) {
    IntMap map;
    for (int key = 1; key <= keys; ++key)
      map.InsertUnlessMember(key, key);
    EXPECT_EQ(Shape(map.Root()), shape);
  }
  IntMap rising;
  IntMap falling;
  for (int key = 0; key < 1024; ++key) {
    rising.InsertUnlessMember(key, key);
    falling.InsertUnlessMember(-key, key);
  }
  EXPECT_EQ(HeightOf(rising.Root()), 10) << "as shallow as 1024 keys can be";
  EXPECT_EQ(HeightOf(falling.Root()), 10);
}

}  // namespace
