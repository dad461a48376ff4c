// cow_Btree: an ordered map with unique keys whose nodes are shared between
// copies (copy-on-write by path copying).
//
// The map is a height-balanced binary search tree.  Copying a map is
// constant-time: the copy gets a new handle to the same root node.  A map
// that is about to change a shared node first gives itself a copy of it (one
// level deep, sharing the children), so a write copies exactly the nodes on
// its search path and no map ever sees another change.
//
// Keys are ordered by cow_KeyCompare: cow_String keys with strnatcmp while
// atr_getNaturalOrder() is non-zero and strcmp otherwise (the switch is read
// at every comparison, so change it only while no map holds keys that the
// two orders sort differently), int keys numerically.
//
// The map does not own what its values point to.  Nodes, handles and count
// cells come from the library's allocators (mem_OperatorNewThrow,
// mem_OperatorNewTinyThrow) and go back with mem_Free.  Allocation failure
// propagates as std::bad_alloc; nothing else is reported.  Maps that share
// nodes must be used from one thread: counts are not atomic.
#ifndef KELMSGFEAMESSAGING_COW_BTREE_H_
#define KELMSGFEAMESSAGING_COW_BTREE_H_

#include <cstdint>

#include <KelMsgFeaMessaging/cow_BtreeNode.h>
#include <KelMsgFeaMessaging/cow_String.h>

template <class K, class V>
class cow_Btree {
 public:
  using Node = cow_BtreeNode<K, V>;
  using Handle = typename Node::Handle;

  // An empty map.
  cow_Btree() : m_nullValue(GetNullValue()) {}
  // Shares the other map's nodes.
  cow_Btree(const cow_Btree& other);
  // Gives up this map's nodes and shares the other's.  The root handle object
  // is kept when both maps have one.
  cow_Btree& operator=(const cow_Btree& other);
  // Releases the nodes; those that no other map shares are freed.
  ~cow_Btree();

  // The value that stands for "absent": V().
  static V GetNullValue() { return V(); }

  // The value stored under `key`, or null.  Never copies anything.  The
  // pointer is valid until the map is next changed.
  const V* ConstFind(const K& key) const;
  // The value stored under `key` for writing, or null.  Unshares every node
  // on the search path first, also when the key is absent.
  V* Find(const K& key);
  // True when ConstFind(key) yields a value.
  bool IsMember(const K& key) const { return ConstFind(key) != nullptr; }
  // Inserts (key, value) unless the key is present; true when inserted.  A
  // present key keeps its value (the search path is unshared all the same).
  bool InsertUnlessMember(const K& key, const V& value);
  // Removes the entry of `key`; true when there was one.  Unshares the search
  // path, also when the key is absent; the entries are then unchanged.
  bool Remove(const K& key);

  // Number of entries.
  unsigned Count() const { return m_count; }
  // Releases the tree and leaves the map empty.
  void Clear();

  // Read-only inspection: the root node's handle, or null when empty.
  const Handle* Root() const { return m_root; }

 private:
  Handle* m_root = nullptr;
  std::uint32_t m_count = 0;
  V m_nullValue;  // the null value, GetNullValue(); copied with the map
};

template <class K, class V>
cow_Btree<K, V>::cow_Btree(const cow_Btree& other)
    : m_root(other.m_root ? new Handle(*other.m_root) : nullptr),
      m_count(other.m_count),
      m_nullValue(other.m_nullValue) {}

template <class K, class V>
cow_Btree<K, V>& cow_Btree<K, V>::operator=(const cow_Btree& other) {
  if (this == &other)
    return *this;
  if (other.m_root == nullptr) {
    Clear();
  } else if (m_root != nullptr) {
    *m_root = *other.m_root;
  } else {
    m_root = new Handle(*other.m_root);
  }
  m_count = other.m_count;
  m_nullValue = other.m_nullValue;
  return *this;
}

template <class K, class V>
cow_Btree<K, V>::~cow_Btree() {
  delete m_root;
}

template <class K, class V>
const V* cow_Btree<K, V>::ConstFind(const K& key) const {
  return m_root ? m_root->Referent()->ConstFind(key) : nullptr;
}

template <class K, class V>
V* cow_Btree<K, V>::Find(const K& key) {
  return m_root ? m_root->Get()->Find(key) : nullptr;
}

template <class K, class V>
bool cow_Btree<K, V>::InsertUnlessMember(const K& key, const V& value) {
  if (m_root == nullptr) {
    m_root = new Handle(new Node(key, value));
    m_count = 1;
    return true;
  }
  if (!m_root->Get()->InsertUnlessMember(key, value))
    return false;
  ++m_count;
  Node::BalanceAt(m_root);
  return true;
}

template <class K, class V>
bool cow_Btree<K, V>::Remove(const K& key) {
  if (m_root == nullptr)
    return false;
  // The root gets a parent so that the node walk may replace it like any
  // child.  The sentinel only borrows the root handle: when it goes, also on
  // allocation failure, it hands its left field back to the map instead of
  // releasing it.
  struct Sentinel {
    explicit Sentinel(Handle*& root) : m_root(root), m_node(K(), GetNullValue()) {
      m_node.m_left = root;
    }
    ~Sentinel() {
      m_root = m_node.m_left;
      m_node.m_left = nullptr;
    }
    Handle*& m_root;
    Node m_node;
  };
  bool removed;
  {
    Sentinel sentinel(m_root);
    removed = m_root->Get()->Remove(key, sentinel.m_node);
  }
  if (!removed)
    return false;
  --m_count;
  if (m_root != nullptr)
    Node::BalanceAt(m_root);
  return true;
}

template <class K, class V>
void cow_Btree<K, V>::Clear() {
  delete m_root;
  m_root = nullptr;
  m_count = 0;
}

#endif  // KELMSGFEAMESSAGING_COW_BTREE_H_
