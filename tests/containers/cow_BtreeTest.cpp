// The copy-on-write map: a randomized comparison with std::map over copies
// that share nodes, and the tree shapes, key orders and sharing of chosen
// cases.
#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/strnatcmp.h>
#include <gtest/gtest.h>

#include <algorithm>
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

Entries Forward(const IntMap& map) {
  Entries entries;
  cow_BtreeIterator<int, int> entry(map);
  for (entry.First(); !entry.AtEnd(); entry.Next())
    entries.emplace_back(entry.Key(), entry.Value());
  return entries;
}

Entries Backward(const IntMap& map) {
  Entries entries;
  cow_BtreeIterator<int, int> entry(map);
  for (entry.Last(); !entry.AtEnd(); entry.Previous())
    entries.emplace_back(entry.Key(), entry.Value());
  return entries;
}

std::set<const Node*> NodesOf(const Handle* handle) {
  std::set<const Node*> nodes;
  std::vector<const Handle*> pending{handle};
  while (!pending.empty()) {
    const Handle* next = pending.back();
    pending.pop_back();
    if (next == nullptr)
      continue;
    nodes.insert(next->Referent());
    pending.push_back(next->Referent()->Left());
    pending.push_back(next->Referent()->Right());
  }
  return nodes;
}

// Every count cell holds the number of handle objects, over all the maps,
// that refer to its node.  A node shared by several holders is entered once,
// so the handles below it are counted once.
void ExpectCountsMatchHolders(const std::vector<const IntMap*>& maps) {
  std::map<const Node*, unsigned> holders;
  std::vector<const Handle*> handles;
  std::vector<const Handle*> pending;
  for (const IntMap* map : maps)
    pending.push_back(map->Root());
  while (!pending.empty()) {
    const Handle* handle = pending.back();
    pending.pop_back();
    if (handle == nullptr)
      continue;
    handles.push_back(handle);
    if (holders[handle->Referent()]++ > 0)
      continue;
    pending.push_back(handle->Referent()->Left());
    pending.push_back(handle->Referent()->Right());
  }
  for (const Handle* handle : handles)
    EXPECT_EQ(handle->RefCount(), holders[handle->Referent()]) << "key " << NodeOf(handle)->Key();
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
  for (const Node* node : NodesOf(map.Root())) {
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
  constexpr int kKeys = 48;
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
      const int operation = pick(100);
      if (operation < 40) {
        EXPECT_EQ(maps[i]->InsertUnlessMember(key, value), models[i].emplace(key, value).second);
      } else if (operation < 60) {
        if (RemovalLeavesHeights(*maps[i], key))
          exactHeights[i] = false;
        EXPECT_EQ(maps[i]->Remove(key), models[i].erase(key) == 1);
      } else if (operation < 72) {
        int* found = maps[i]->Find(key);
        const auto modelled = models[i].find(key);
        ASSERT_EQ(found != nullptr, modelled != models[i].end());
        if (found != nullptr) {
          EXPECT_EQ(*found, modelled->second);
          *found = modelled->second = value;
        }
      } else if (operation < 84) {
        const int* found = maps[i]->ConstFind(key);
        EXPECT_EQ(maps[i]->IsMember(key), models[i].count(key) == 1);
        ASSERT_EQ(found != nullptr, models[i].count(key) == 1);
        if (found != nullptr) {
          EXPECT_EQ(*found, models[i].at(key));
        }
      } else if (operation < 91) {
        maps[j] = std::make_unique<IntMap>(*maps[i]);
        models[j] = models[i];
        exactHeights[j] = exactHeights[i];
      } else if (operation < 98) {
        *maps[j] = *maps[i];
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
        EXPECT_EQ(Backward(*maps[m]), Entries(expected.rbegin(), expected.rend())) << "map " << m;
        ExpectHeights(*maps[m], exactHeights[m]);
      }
      ExpectCountsMatchHolders(all);
    }
  }
}

TEST(CowBtreeShape, FourthAscendingKeyRotatesTheRootLeft) {
  cow_Btree<int, KelMsgBBMessage*> map;
  for (int key : {1, 2, 3})
    ASSERT_TRUE(map.InsertUnlessMember(key, nullptr));
  const auto* root = map.Root()->Referent();
  EXPECT_EQ(root->Key(), 1);
  EXPECT_EQ(root->Left(), nullptr);
  EXPECT_EQ(root->Height(), 2);
  const auto* two = root->Right()->Referent();
  EXPECT_EQ(two->Key(), 2);
  EXPECT_EQ(two->Height(), 1);
  EXPECT_EQ(two->Right()->Referent()->Key(), 3);

  ASSERT_TRUE(map.InsertUnlessMember(4, nullptr));
  root = map.Root()->Referent();
  EXPECT_EQ(root->Key(), 2);
  EXPECT_EQ(root->Height(), 2);
  const auto* one = root->Left()->Referent();
  EXPECT_EQ(one->Key(), 1);
  EXPECT_EQ(one->Height(), 0);
  EXPECT_EQ(one->Left(), nullptr);
  EXPECT_EQ(one->Right(), nullptr);
  const auto* three = root->Right()->Referent();
  EXPECT_EQ(three->Key(), 3);
  EXPECT_EQ(three->Height(), 1);
  EXPECT_EQ(three->Left(), nullptr);
  EXPECT_EQ(three->Right()->Referent()->Key(), 4);
  EXPECT_EQ(map.Count(), 4u);
}

TEST(CowBtreeShape, RemovalTakesTheInOrderSuccessor) {
  IntMap map;
  for (int key : {10, 5, 20, 3, 15, 12})
    ASSERT_TRUE(map.InsertUnlessMember(key, key));
  ASSERT_EQ(NodeOf(map.Root())->Height(), 3);

  // 12 is the leftmost of 20 -> 15 -> 12 and takes 10's place.
  ASSERT_TRUE(map.Remove(10));
  const Node* root = NodeOf(map.Root());
  EXPECT_EQ(root->Key(), 12);
  EXPECT_EQ(NodeOf(root->Left())->Key(), 5);
  const Node* twenty = NodeOf(root->Right());
  EXPECT_EQ(twenty->Key(), 20);
  EXPECT_EQ(NodeOf(twenty->Left())->Key(), 15);
  EXPECT_EQ(NodeOf(twenty->Left())->Height(), 0);
  // 15 lost its child, but 20 between the right child and 15 keeps height 2,
  // and the new root is measured from it.
  EXPECT_EQ(twenty->Height(), 2);
  EXPECT_EQ(root->Height(), 3);

  // Once 15 is gone, the right child 20 has no left child and is itself the
  // successor of 12.
  ASSERT_TRUE(map.Remove(15));
  ASSERT_TRUE(map.Remove(12));
  root = NodeOf(map.Root());
  EXPECT_EQ(root->Key(), 20);
  EXPECT_EQ(NodeOf(root->Left())->Key(), 5);
  EXPECT_EQ(root->Right(), nullptr);
  EXPECT_EQ(Forward(map), (Entries{{3, 3}, {5, 5}, {20, 20}}));
}

TEST(CowBtreeRemove, AbsentKeyEmptyMapAndLastEntry) {
  IntMap map;
  EXPECT_FALSE(map.Remove(1));
  EXPECT_EQ(map.Root(), nullptr);

  for (int key : {2, 1, 3})
    map.InsertUnlessMember(key, key);
  const Handle* root = map.Root();
  const Node* rootNode = root->Referent();
  EXPECT_FALSE(map.Remove(9));
  EXPECT_EQ(map.Root(), root);
  EXPECT_EQ(map.Root()->Referent(), rootNode);
  EXPECT_EQ(map.Count(), 3u);
  EXPECT_EQ(Forward(map), (Entries{{1, 1}, {2, 2}, {3, 3}}));

  IntMap single;
  single.InsertUnlessMember(5, 50);
  EXPECT_TRUE(single.Remove(5));
  EXPECT_EQ(single.Root(), nullptr);
  EXPECT_EQ(single.Count(), 0u);
  EXPECT_FALSE(single.Remove(5));
  EXPECT_TRUE(single.InsertUnlessMember(5, 51));
  EXPECT_EQ(*single.ConstFind(5), 51);
}

// Keys 1..7 inserted so that the tree is complete: 4 at the root, 2 and 6
// below it, the odd keys as leaves.
IntMap CompleteTree() {
  IntMap map;
  for (int key : {4, 2, 6, 1, 3, 5, 7})
    map.InsertUnlessMember(key, key * 10);
  return map;
}

std::set<int> KeysOf(const std::set<const Node*>& nodes) {
  std::set<int> keys;
  for (const Node* node : nodes)
    keys.insert(node->Key());
  return keys;
}

std::set<const Node*> Difference(const std::set<const Node*>& a, const std::set<const Node*>& b) {
  std::set<const Node*> only;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::inserter(only, only.end()));
  return only;
}

TEST(CowBtreeCopy, InsertIntoACopyCopiesOnlyItsSearchPath) {
  const IntMap original = CompleteTree();
  IntMap copy(original);
  EXPECT_EQ(copy.Root()->Referent(), original.Root()->Referent());
  EXPECT_EQ(original.Root()->RefCount(), 2u);

  ASSERT_TRUE(copy.InsertUnlessMember(8, 80));  // path 4 -> 6 -> 7
  EXPECT_EQ(original.Count(), 7u);
  EXPECT_EQ(copy.Count(), 8u);
  EXPECT_EQ(original.ConstFind(8), nullptr);
  const auto originalNodes = NodesOf(original.Root());
  const auto copyNodes = NodesOf(copy.Root());
  EXPECT_EQ(KeysOf(Difference(copyNodes, originalNodes)), (std::set<int>{4, 6, 7, 8}));
  EXPECT_EQ(KeysOf(Difference(originalNodes, copyNodes)), (std::set<int>{4, 6, 7}));
  EXPECT_EQ(NodeWithKey(copy, 2), NodeWithKey(original, 2));
  EXPECT_EQ(NodeWithKey(copy, 5), NodeWithKey(original, 5));
  EXPECT_EQ(original.Root()->RefCount(), 1u);
  ExpectCountsMatchHolders({&original, &copy});

  const IntMap empty;
  const IntMap emptyCopy(empty);
  EXPECT_EQ(emptyCopy.Root(), nullptr);
  EXPECT_EQ(emptyCopy.Count(), 0u);
}

TEST(CowBtreeCopy, PresentKeyInsertAndAbsentKeyFindStillUnshareThePath) {
  const IntMap original = CompleteTree();
  IntMap inserted(original);
  EXPECT_FALSE(inserted.InsertUnlessMember(5, 999));  // path 4 -> 6 -> 5
  EXPECT_EQ(*inserted.ConstFind(5), 50);
  EXPECT_EQ(*original.ConstFind(5), 50);
  EXPECT_EQ(inserted.Count(), 7u);
  const auto fresh = Difference(NodesOf(inserted.Root()), NodesOf(original.Root()));
  EXPECT_EQ(KeysOf(fresh), (std::set<int>{4, 6, 5}));

  IntMap found(original);
  EXPECT_EQ(found.Find(0), nullptr);  // path 4 -> 2 -> 1
  EXPECT_EQ(KeysOf(Difference(NodesOf(found.Root()), NodesOf(original.Root()))),
            (std::set<int>{4, 2, 1}));
  ExpectCountsMatchHolders({&original, &inserted, &found});
}

TEST(CowBtreeCopy, AssignmentReusesTheRootHandleAndSharesTheOtherRoot) {
  const IntMap source = CompleteTree();
  IntMap target;
  target.InsertUnlessMember(100, 1);
  const Handle* targetRoot = target.Root();
  target = source;
  EXPECT_EQ(target.Root(), targetRoot);
  EXPECT_EQ(target.Root()->Referent(), source.Root()->Referent());
  EXPECT_EQ(target.Count(), 7u);
  EXPECT_EQ(source.Root()->RefCount(), 2u);

  target = source;  // already sharing that root: the count must stay right
  IntMap& alias = target;
  target = alias;
  EXPECT_EQ(source.Root()->RefCount(), 2u);

  IntMap empty;
  empty = source;
  EXPECT_EQ(source.Root()->RefCount(), 3u);
  target = IntMap();
  EXPECT_EQ(target.Root(), nullptr);
  EXPECT_EQ(target.Count(), 0u);
  EXPECT_EQ(source.Root()->RefCount(), 2u);
  EXPECT_EQ(Forward(empty), Forward(source));
}

TEST(CowBtreeIterator, WalksBothWaysAndStartsAtTheEndOfAnEmptyMap) {
  const IntMap empty;
  cow_BtreeIterator<int, int> none(empty);
  EXPECT_TRUE(none.AtEnd());
  none.First();
  EXPECT_TRUE(none.AtEnd());
  none.Last();
  EXPECT_TRUE(none.AtEnd());

  const IntMap map = CompleteTree();
  cow_BtreeIterator<int, int> entry(map);
  entry.Last();
  entry.Previous();
  entry.Previous();
  EXPECT_EQ(entry.Key(), 5);
  entry.Next();
  EXPECT_EQ(entry.Key(), 6);
  EXPECT_EQ(entry.Value(), 60);
  entry.First();  // restarts from a stack that was not empty
  EXPECT_EQ(entry.Key(), 1);
  entry.Previous();
  EXPECT_TRUE(entry.AtEnd());
}

class NaturalOrderSetting {
 public:
  explicit NaturalOrderSetting(int natural) : m_previous(atr_getNaturalOrder()) {
    atr_setNaturalOrder(natural);
  }
  ~NaturalOrderSetting() { atr_setNaturalOrder(m_previous); }

 private:
  int m_previous;
};

using StringMap = cow_Btree<cow_String, KelMsgBBMessageHandler*>;

std::vector<std::string> Texts(const StringMap& map) {
  std::vector<std::string> texts;
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
  StringMap natural;
  {
    NaturalOrderSetting on(1);
    natural = Items();
    EXPECT_EQ(Texts(natural), (std::vector<std::string>{"item1", "item2", "item10"}));
  }
  {
    NaturalOrderSetting off(0);
    EXPECT_EQ(Texts(Items()), (std::vector<std::string>{"item1", "item10", "item2"}));
    // The tree was sorted the natural way: byte order now looks for item2
    // right of item10, where it is not.
    EXPECT_FALSE(natural.IsMember("item2"));
    EXPECT_TRUE(natural.IsMember("item10"));
  }
  NaturalOrderSetting on(1);
  EXPECT_TRUE(natural.IsMember("item2"));
}

}  // namespace
