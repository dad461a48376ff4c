// cow_BtreeNode: one entry of a cow_Btree, and the tree operations that walk
// down from it.
//
// A node holds its value, its key and handles to its two subtrees (smaller
// keys left, greater keys right), and m_height: 0 without children, else the
// greatest (child's m_height + 1) over the children present.  Nodes are shared
// between maps through their handles; a node whose handle count is above 1 is
// never changed: every writing walk takes each node through Get() of its
// handle first, which gives the walking map a copy of its own.
//
// Keys are ordered by cow_KeyCompare(searched key, node's key): negative goes
// left, positive right, zero is a match.  For cow_String keys that compare
// reads the string library's natural-order switch every time.
//
// Nodes are made with mem_OperatorNewThrow and freed with mem_Free.  The tree
// never deletes what a value points to.
#ifndef KELMSGFEAMESSAGING_COW_BTREENODE_H_
#define KELMSGFEAMESSAGING_COW_BTREENODE_H_

#include <cstddef>
#include <cstdint>

#include <KelMsgFeaMessaging/cow_COW.h>
#include <KelMsgFeaMessaging/cow_Direct.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

template <class K, class V>
class cow_Btree;

template <class K, class V>
class cow_BtreeNode {
 public:
  using Handle = cow_COW<cow_BtreeNode, cow_Direct<cow_BtreeNode>>;

  // A leaf: no children, height 0.
  cow_BtreeNode(const K& key, const V& value) : m_value(value), m_key(key) {}
  // One-level copy: same value, key and height; each child present gets a
  // new handle that shares the original's child node (its count + 1).
  cow_BtreeNode(const cow_BtreeNode& original);
  cow_BtreeNode& operator=(const cow_BtreeNode&) = delete;
  // Releases both child handles.
  ~cow_BtreeNode();

  // The value stored under `key` in this subtree, or null.  Copies nothing.
  const V* ConstFind(const K& key) const;
  // Same result, for writing: every node on the search path below this one
  // is first unshared, also when the key is absent.  This node must already
  // be unshared.
  V* Find(const K& key);
  // Inserts (key, value) below this (unshared) node unless the key is present,
  // unsharing the search path either way.  True when inserted; a present
  // key's value is left as it is.
  bool InsertUnlessMember(const K& key, const V& value);
  // Removes the entry of `key` from this (unshared) node's subtree; `parent`
  // is the node whose child this one is.  True when an entry was removed.
  bool Remove(const K& key, cow_BtreeNode& parent);
  // Replaces the child handle that refers to `removed` (the right one when it
  // does, else the left one) by `replacement`, releasing it; then recomputes
  // this node's height.
  void RemoveNode(const cow_BtreeNode* removed, Handle* replacement);
  // Rebalances the subtree of this node, which `self` refers to, by one
  // single rotation when one child's stored height exceeds the other's by 2
  // or more (an absent child counts 0, as a leaf does).  Returns the handle of
  // the subtree's new top, which the caller stores where `self` was, or null
  // when nothing changed.
  Handle* Balance(Handle* self);
  // Balance of the node that `slot` refers to, storing the new top in `slot`.
  static void BalanceAt(Handle*& slot);

  // Read-only inspection.
  const K& Key() const { return m_key; }
  const V& Value() const { return m_value; }
  const Handle* Left() const { return m_left; }
  const Handle* Right() const { return m_right; }
  std::int32_t Height() const { return m_height; }

  static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
  static void operator delete(void* memory) noexcept { mem_Free(memory); }

 private:
  friend class cow_Btree<K, V>;  // its Remove lends the root to a sentinel's left field

  static Handle* Share(const Handle* handle) { return handle ? new Handle(*handle) : nullptr; }
  // What a child adds to its parent's height: its own + 1, or 0 when absent.
  static std::int32_t HeightBelow(const Handle* child) {
    return child ? child->Referent()->m_height + 1 : 0;
  }
  // The stored height, 0 for an absent child (a leaf also counts 0).
  static std::int32_t StoredHeight(const Handle* child) {
    return child ? child->Referent()->m_height : 0;
  }
  Handle*& ChildOn(int order) { return order < 0 ? m_left : m_right; }
  const Handle* ChildOn(int order) const { return order < 0 ? m_left : m_right; }
  void UpdateHeight();
  // A child field, as a member pointer: rotations are written once for both sides.
  using Child = Handle* cow_BtreeNode::*;
  // Single rotation: the child on the `rising` side becomes the subtree's
  // top, and this node (referred to by `self`) its child on the `sinking`
  // side.  Returns the new top's handle.
  Handle* Rotate(Handle* self, Child rising, Child sinking);
  // Takes this node's in-order successor out of the right subtree and gives
  // it this node's two subtrees; returns the successor's handle.
  Handle* DetachSuccessor();

  V m_value;  // first, so a pointer to a node is a pointer to its value
  K m_key;
  Handle* m_left = nullptr;
  Handle* m_right = nullptr;
  std::int32_t m_height = 0;
};

template <class K, class V>
cow_BtreeNode<K, V>::cow_BtreeNode(const cow_BtreeNode& original)
    : cow_BtreeNode(original.m_key, original.m_value) {
  // Construction is complete once the delegated constructor returns, so if
  // sharing the right child throws, the destructor releases the left one.
  m_height = original.m_height;
  m_left = Share(original.m_left);
  m_right = Share(original.m_right);
}

template <class K, class V>
cow_BtreeNode<K, V>::~cow_BtreeNode() {
  delete m_left;
  delete m_right;
}

template <class K, class V>
const V* cow_BtreeNode<K, V>::ConstFind(const K& key) const {
  const cow_BtreeNode* node = this;
  for (;;) {
    const int order = cow_KeyCompare(key, node->m_key);
    if (order == 0)
      return &node->m_value;
    const Handle* child = node->ChildOn(order);
    if (child == nullptr)
      return nullptr;
    node = child->Referent();
  }
}

template <class K, class V>
V* cow_BtreeNode<K, V>::Find(const K& key) {
  cow_BtreeNode* node = this;
  for (;;) {
    const int order = cow_KeyCompare(key, node->m_key);
    if (order == 0)
      return &node->m_value;
    Handle* child = node->ChildOn(order);
    if (child == nullptr)
      return nullptr;
    node = child->Get();
  }
}

template <class K, class V>
bool cow_BtreeNode<K, V>::InsertUnlessMember(const K& key, const V& value) {
  const int order = cow_KeyCompare(key, m_key);
  if (order == 0)
    return false;
  Handle*& child = ChildOn(order);
  if (child == nullptr) {
    child = new Handle(new cow_BtreeNode(key, value));
    UpdateHeight();
    return true;
  }
  if (!child->Get()->InsertUnlessMember(key, value))
    return false;
  BalanceAt(child);
  UpdateHeight();
  return true;
}

template <class K, class V>
bool cow_BtreeNode<K, V>::Remove(const K& key, cow_BtreeNode& parent) {
  const int order = cow_KeyCompare(key, m_key);
  if (order != 0) {
    Handle*& child = ChildOn(order);
    if (child == nullptr || !child->Get()->Remove(key, *this))
      return false;
    // The removed node may have been that child, replaced or gone by now.
    if (child != nullptr)
      BalanceAt(child);
    UpdateHeight();
    return true;
  }
  Handle* replacement = m_right == nullptr  ? m_left
                        : m_left == nullptr ? m_right
                                            : DetachSuccessor();
  m_left = nullptr;
  m_right = nullptr;
  parent.RemoveNode(this, replacement);  // destroys this node
  return true;
}

template <class K, class V>
typename cow_BtreeNode<K, V>::Handle* cow_BtreeNode<K, V>::DetachSuccessor() {
  Handle* successor = m_right;
  cow_BtreeNode* node = successor->Get();
  cow_BtreeNode* parent = nullptr;
  while (node->m_left != nullptr) {
    parent = node;
    successor = node->m_left;
    node = successor->Get();
  }
  if (parent != nullptr) {
    // Only the successor's parent is brought up to date; the heights of the
    // nodes above it on the way down from the right child are left alone.
    parent->m_left = node->m_right;
    node->m_right = m_right;
    parent->UpdateHeight();
  }
  node->m_left = m_left;
  node->UpdateHeight();
  return successor;
}

template <class K, class V>
void cow_BtreeNode<K, V>::RemoveNode(const cow_BtreeNode* removed, Handle* replacement) {
  Handle*& slot = m_right != nullptr && m_right->Referent() == removed ? m_right : m_left;
  delete slot;
  slot = replacement;
  UpdateHeight();
}

template <class K, class V>
typename cow_BtreeNode<K, V>::Handle* cow_BtreeNode<K, V>::Balance(Handle* self) {
  const std::int32_t lean = StoredHeight(m_right) - StoredHeight(m_left);
  if (lean >= 2)
    return Rotate(self, &cow_BtreeNode::m_right, &cow_BtreeNode::m_left);
  if (lean <= -2)
    return Rotate(self, &cow_BtreeNode::m_left, &cow_BtreeNode::m_right);
  return nullptr;
}

template <class K, class V>
typename cow_BtreeNode<K, V>::Handle* cow_BtreeNode<K, V>::Rotate(Handle* self, Child rising,
                                                                  Child sinking) {
  Handle* top = this->*rising;
  cow_BtreeNode* risen = top->Get();
  this->*rising = risen->*sinking;
  risen->*sinking = self;
  UpdateHeight();
  risen->UpdateHeight();
  return top;
}

template <class K, class V>
void cow_BtreeNode<K, V>::BalanceAt(Handle*& slot) {
  if (Handle* top = slot->Get()->Balance(slot))
    slot = top;
}

template <class K, class V>
void cow_BtreeNode<K, V>::UpdateHeight() {
  const std::int32_t left = HeightBelow(m_left);
  const std::int32_t right = HeightBelow(m_right);
  m_height = left > right ? left : right;
}

#endif  // KELMSGFEAMESSAGING_COW_BTREENODE_H_
