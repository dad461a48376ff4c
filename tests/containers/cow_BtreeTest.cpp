// The copy-on-write map: a randomized comparison with std::map over copies
// that share nodes, and the tree shapes, key orders and sharing of chosen
// cases.
#include <KelMsgFeaMessaging/KelMsgBBMaps.h>
#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/strnatcmp.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using IntMap = cow_Btree<int, int>;
using Node = IntMap::Node;
using Handle = IntMap::Handle;
using Entries = std::vector<std::pair<int, int>>;

const Node* NodeOf(const Handle* handle) {
  return handle ? handle->Referent() : nullptr;
}

const Node* NodeWithKey(const IntMap& map, int key) {
  const Node* node = NodeOf(map.Root());
  while (node != nullptr && node->Key() != key)
    node = NodeOf(key < node->Key() ? node->Left() : node->Right());
  return node;
}

using Step = void (cow_BtreeIterator<int, int>::*)();

// The entries in the order the iterator visits them from `start` by `step`.
Entries Walk(const IntMap& map, Step start, Step step) {
  Entries entries;
  cow_BtreeIterator<int, int> entry(map);
  entry.First();
  entry.Last();  // a start drops the path walked before
  for ((entry.*start)(); !entry.AtEnd(); (entry.*step)())
    entries.emplace_back(entry.Key(), entry.Value());
  return entries;
}

Entries Forward(const IntMap& map) {
  return Walk(map, &cow_BtreeIterator<int, int>::First, &cow_BtreeIterator<int, int>::Next);
}

// The handle objects that refer to each node of the maps' trees.  A node
// shared by several holders is entered once, so the handles below it are
// met once.
std::map<const Node*, std::vector<const Handle*>> HandlesByNode(
    const std::vector<const IntMap*>& maps) {
  std::map<const Node*, std::vector<const Handle*>> handles;
  std::vector<const Handle*> pending;
  for (const IntMap* map : maps)
    pending.push_back(map->Root());
  while (!pending.empty()) {
    const Handle* handle = pending.back();
    pending.pop_back();
    if (handle == nullptr)
      continue;
    auto& holders = handles[handle->Referent()];
    holders.push_back(handle);
    if (holders.size() > 1)
      continue;
    pending.push_back(handle->Referent()->Left());
    pending.push_back(handle->Referent()->Right());
  }
  return handles;
}

// Every count cell holds the number of handle objects that refer to its node.
void ExpectCountsMatchHolders(const std::vector<const IntMap*>& maps) {
  for (const auto& [node, holders] : HandlesByNode(maps)) {
    for (const Handle* handle : holders)
      EXPECT_EQ(handle->RefCount(), holders.size()) << "key " << node->Key();
  }
}

// Keys of the nodes in `map` that `other` does not share.
std::set<int> KeysOnlyIn(const IntMap& map, const IntMap& other) {
  const auto others = HandlesByNode({&other});
  std::set<int> keys;
  for (const auto& [node, holders] : HandlesByNode({&map})) {
    if (others.count(node) == 0)
      keys.insert(node->Key());
  }
  return keys;
}

int HeightRule(const Node& node) {
  const int left = node.Left() ? NodeOf(node.Left())->Height() + 1 : 0;
  const int right = node.Right() ? NodeOf(node.Right())->Height() + 1 : 0;
  return std::max(left, right);
}

// Each height follows the height rule from its children's stored heights.  A
// removal through a successor deeper than the right child leaves the heights
// above the successor's parent as they were, so they may only be too great.
void ExpectHeights(const IntMap& map, bool exact) {
  for (const auto& [node, holders] : HandlesByNode({&map})) {
    if (exact) {
      EXPECT_EQ(node->Height(), HeightRule(*node)) << "key " << node->Key();
    } else {
      EXPECT_GE(node->Height(), HeightRule(*node)) << "key " << node->Key();
    }
  }
}

// True when removing `key` takes a successor from below the right child.
bool RemovalLeavesHeights(const IntMap& map, int key) {
  const Node* node = NodeWithKey(map, key);
  return node != nullptr && node->Left() != nullptr && node->Right() != nullptr &&
         NodeOf(node->Right())->Left() != nullptr;
}

TEST(CowBtreeModel, SharingCopiesBehaveLikeIndependentStdMaps) {
  constexpr int kMaps = 4;
  constexpr int kKeys = 64;
  constexpr int kSteps = 3000;
  for (unsigned seed : {1u, 2u, 3u}) {
    std::mt19937 random(seed);
    auto pick = [&random](int bound) { return static_cast<int>(random() % bound); };
    std::vector<std::unique_ptr<IntMap>> maps;
    std::vector<std::map<int, int>> models(kMaps);
    std::vector<bool> exactHeights(kMaps, true);
    for (int i = 0; i < kMaps; ++i)
      maps.push_back(std::make_unique<IntMap>());

    for (int step = 0; step < kSteps && !HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const int i = pick(kMaps);
      const int j = pick(kMaps);
      const int key = pick(kKeys);
      const int value = pick(1000);
      const int operation = pick(1000);
      if (operation < 420) {
        EXPECT_EQ(maps[i]->InsertUnlessMember(key, value), models[i].emplace(key, value).second);
      } else if (operation < 620) {
        if (RemovalLeavesHeights(*maps[i], key))
          exactHeights[i] = false;
        EXPECT_EQ(maps[i]->Remove(key), models[i].erase(key) == 1);
      } else if (operation < 740) {
        int* found = maps[i]->Find(key);
        const auto modelled = models[i].find(key);
        ASSERT_EQ(found != nullptr, modelled != models[i].end());
        if (found != nullptr) {
          EXPECT_EQ(*found, modelled->second);
          *found = modelled->second = value;
        }
      } else if (operation < 860) {
        const int* found = maps[i]->ConstFind(key);
        ASSERT_EQ(maps[i]->IsMember(key), models[i].count(key) == 1);
        EXPECT_EQ(found ? *found : -1, maps[i]->IsMember(key) ? models[i].at(key) : -1);
      } else if (operation < 995) {
        if (operation < 930) {
          maps[j] = std::make_unique<IntMap>(*maps[i]);
        } else {
          *maps[j] = *maps[i];  // also onto itself, or onto a map sharing its root
        }
        models[j] = models[i];
        exactHeights[j] = exactHeights[i];
      } else {
        maps[i]->Clear();
        models[i].clear();
        exactHeights[i] = true;
      }

      std::vector<const IntMap*> all;
      for (int m = 0; m < kMaps; ++m) {
        all.push_back(maps[m].get());
        const Entries expected(models[m].begin(), models[m].end());
        EXPECT_EQ(maps[m]->Count(), models[m].size()) << "map " << m;
        EXPECT_EQ(Forward(*maps[m]), expected) << "map " << m;
        EXPECT_EQ(Walk(*maps[m], &cow_BtreeIterator<int, int>::Last,
                       &cow_BtreeIterator<int, int>::Previous),
                  Entries(expected.rbegin(), expected.rend()))
            << "map " << m;
        ExpectHeights(*maps[m], exactHeights[m]);
      }
      ExpectCountsMatchHolders(all);
    }
  }
}

// The tree written out as key/height(left,right); the parentheses are left
// out for a leaf.  "2/1(1/0,)" is 2, of height 1, over its left child 1.
std::string Shape(const Handle* handle) {
  if (handle == nullptr)
    return "";
  const Node* node = handle->Referent();
  std::string shape = std::to_string(node->Key()) + "/" + std::to_string(node->Height());
  if (node->Left() != nullptr || node->Right() != nullptr)
    shape += "(" + Shape(node->Left()) + "," + Shape(node->Right()) + ")";
  return shape;
}

// Keys inserted, then removed, and the tree that results.
TEST(CowBtreeShape, RotatesWhereOneSideIsTwoTallerAndRemovesThroughTheSuccessor) {
  const struct {
    std::vector<int> inserted;
    std::vector<int> removed;
    const char* shape;
  } cases[] = {
      {{1, 2, 3}, {}, "1/2(,2/1(,3/0))"},  // 2 against no child: no rotation
      {{1, 2, 3, 4}, {}, "2/2(1/0,3/1(,4/0))"},
      // 5 rotates at the root again; 7 makes 4 lean by two below the root.
      {{1, 2, 3, 4, 5, 6, 7}, {}, "3/3(2/1(1/0,),5/2(4/0,6/1(,7/0)))"},
      // The leaf 5 against 20's height 2.
      {{10, 5, 20, 3, 15, 25, 30}, {3}, "20/2(10/1(5/0,15/0),25/1(,30/0))"},
      // The leaf 150 against 250's height 2, below the root.
      {{100, 50, 200, 25, 75, 150, 250, 10, 125, 220, 300, 310},
       {125},
       "100/3(50/2(25/1(10/0,),75/0),250/2(200/1(150/0,220/0),300/1(,310/0)))"},
      // 12, the leftmost of 20 -> 15 -> 12, takes 10's place; 15 is brought
      // up to date, 20 above it keeps height 2, and 12 is measured from that.
      {{10, 5, 20, 3, 15, 12}, {10}, "12/3(5/1(3/0,),20/2(15/0,))"},
      // Without a left child, the right child 20 is itself the successor.
      {{10, 5, 20, 3, 15, 12}, {10, 15, 12}, "20/2(5/1(3/0,),)"},
  };
  for (const auto& c : cases) {
    IntMap map;
    for (int key : c.inserted)
      ASSERT_TRUE(map.InsertUnlessMember(key, key));
    for (int key : c.removed)
      ASSERT_TRUE(map.Remove(key));
    EXPECT_EQ(Shape(map.Root()), c.shape);
    EXPECT_EQ(map.Count(), c.inserted.size() - c.removed.size());
  }
}

// A write to a copy copies exactly the nodes on its search path, also when
// it changes nothing.  Keys 1..7 make a complete tree: 4 at the root, 2 and
// 6 below it, the odd keys as leaves.
TEST(CowBtreeCopy, AWriteCopiesOnlyItsSearchPath) {
  IntMap original;
  for (int key : {4, 2, 6, 1, 3, 5, 7})
    original.InsertUnlessMember(key, key * 10);
  const struct {
    std::function<void(IntMap&)> write;
    std::set<int> copied;
  } cases[] = {
      {[](IntMap& map) { EXPECT_TRUE(map.InsertUnlessMember(8, 80)); }, {4, 6, 7}},
      {[](IntMap& map) { EXPECT_FALSE(map.InsertUnlessMember(5, 999)); }, {4, 6, 5}},
      {[](IntMap& map) { EXPECT_EQ(map.Find(0), nullptr); }, {4, 2, 1}},
  };
  for (const auto& c : cases) {
    IntMap copy(original);
    EXPECT_EQ(copy.Root()->Referent(), original.Root()->Referent());
    c.write(copy);
    EXPECT_EQ(KeysOnlyIn(original, copy), c.copied);
    EXPECT_EQ(Forward(original),
              (Entries{{1, 10}, {2, 20}, {3, 30}, {4, 40}, {5, 50}, {6, 60}, {7, 70}}));
    ExpectCountsMatchHolders({&original, &copy});
  }
}

using StringMap = cow_Btree<cow_String, KelMsgBBMessageHandler*>;
using Strings = std::vector<std::string>;

Strings Texts(const StringMap& map) {
  Strings texts;
  cow_BtreeIterator<cow_String, KelMsgBBMessageHandler*> entry(map);
  for (entry.First(); !entry.AtEnd(); entry.Next())
    texts.emplace_back(entry.Key().GetText());
  return texts;
}

StringMap Items() {
  StringMap map;
  for (const char* key : {"item10", "item2", "item1"})
    map.InsertUnlessMember(key, nullptr);
  return map;
}

TEST(CowBtreeOrder, NaturalOrderSwitchIsReadAtEveryComparison) {
  ASSERT_EQ(atr_getNaturalOrder(), 0) << "byte order when the library is loaded";
  EXPECT_EQ(Texts(Items()), (Strings{"item1", "item10", "item2"}));
  atr_setNaturalOrder(1);
  const StringMap natural = Items();
  EXPECT_EQ(Texts(natural), (Strings{"item1", "item2", "item10"}));
  EXPECT_TRUE(natural.IsMember("item2"));
  atr_setNaturalOrder(0);
  // Byte order now looks for item2 right of item10, where it is not.
  EXPECT_FALSE(natural.IsMember("item2"));
  EXPECT_TRUE(natural.IsMember("item10"));
}

}  // namespace
