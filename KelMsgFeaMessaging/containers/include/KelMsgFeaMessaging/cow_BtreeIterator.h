// cow_BtreeIterator: walks the entries of a cow_Btree in key order, either way.
//
//   cow_BtreeIterator<cow_String, int> entry(map);
//   for (entry.First(); !entry.AtEnd(); entry.Next()) Use(entry.Key(), entry.Value());
//
// The iterator keeps the path from the root to the current entry as a stack
// of the handles on it (cells made with mem_OperatorNewThrow, freed with
// mem_Free).  It reads the nodes without unsharing them and takes no count on
// them, so it is valid only while the map is not changed; Find changes the
// map when it has to unshare.  The map must outlive the iterator.
#ifndef KELMSGFEAMESSAGING_COW_BTREEITERATOR_H_
#define KELMSGFEAMESSAGING_COW_BTREEITERATOR_H_

#include <cstddef>

#include <KelMsgFeaMessaging/cow_Btree.h>
#include <KelMsgFeaMessaging/cow_String.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

template <class K, class V>
class cow_BtreeIterator {
 public:
  // Not on an entry until First() or Last().
  explicit cow_BtreeIterator(const cow_Btree<K, V>& map) : m_map(&map) {}
  cow_BtreeIterator(const cow_BtreeIterator&) = delete;
  cow_BtreeIterator& operator=(const cow_BtreeIterator&) = delete;
  ~cow_BtreeIterator();

  // Moves to the smallest key (First) or the greatest (Last); an empty map
  // is at the end at once.
  void First();
  void Last();
  // Moves to the next greater (Next) or smaller (Previous) key, or past the
  // end.  Precondition: !AtEnd().
  void Next();
  void Previous();

  // True when the iterator is on no entry.
  bool AtEnd() const { return m_top == nullptr; }
  // The current entry.  Precondition: !AtEnd().
  const K& Key() const { return m_top->handle->Referent()->Key(); }
  const V& Value() const { return m_top->handle->Referent()->Value(); }

 private:
  using Node = cow_BtreeNode<K, V>;
  using Handle = typename Node::Handle;
  // A child accessor of the node, so that each walk is written once for both
  // directions.
  using Child = const Handle* (Node::*)() const;

  struct Cell {
    const Handle* handle;
    Cell* next;
    static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
    static void operator delete(void* memory) noexcept { mem_Free(memory); }
  };

  void Push(const Handle* handle) { m_top = new Cell{handle, m_top}; }
  const Handle* Pop();
  void FreeStack();
  // Restarts at the end of the map in the `outward` direction.
  void StartAt(Child outward);
  // Pushes `handle`, then the chain of `outward` children below it.
  void PushChain(const Handle* handle, Child outward);
  // Next() when `forward` is Right and `backward` Left; Previous() mirrored.
  void Step(Child forward, Child backward);

  const cow_Btree<K, V>* m_map;
  Cell* m_top = nullptr;  // the current entry's handle; null when on none
};

template <class K, class V>
cow_BtreeIterator<K, V>::~cow_BtreeIterator() {
  FreeStack();
}

template <class K, class V>
void cow_BtreeIterator<K, V>::First() {
  StartAt(&Node::Left);
}

template <class K, class V>
void cow_BtreeIterator<K, V>::Last() {
  StartAt(&Node::Right);
}

template <class K, class V>
void cow_BtreeIterator<K, V>::Next() {
  Step(&Node::Right, &Node::Left);
}

template <class K, class V>
void cow_BtreeIterator<K, V>::Previous() {
  Step(&Node::Left, &Node::Right);
}

template <class K, class V>
const typename cow_BtreeIterator<K, V>::Handle* cow_BtreeIterator<K, V>::Pop() {
  Cell* top = m_top;
  const Handle* handle = top->handle;
  m_top = top->next;
  delete top;
  return handle;
}

template <class K, class V>
void cow_BtreeIterator<K, V>::FreeStack() {
  while (m_top != nullptr)
    Pop();
}

template <class K, class V>
void cow_BtreeIterator<K, V>::StartAt(Child outward) {
  FreeStack();
  if (m_map->Root() != nullptr)
    PushChain(m_map->Root(), outward);
}

template <class K, class V>
void cow_BtreeIterator<K, V>::PushChain(const Handle* handle, Child outward) {
  for (; handle != nullptr; handle = (handle->Referent()->*outward)())
    Push(handle);
}

template <class K, class V>
void cow_BtreeIterator<K, V>::Step(Child forward, Child backward) {
  if (const Handle* child = (m_top->handle->Referent()->*forward)()) {
    PushChain(child, backward);
    return;
  }
  // Climb while coming up from the `forward` side: those ancestors are done.
  const Handle* from = Pop();
  while (m_top != nullptr && (m_top->handle->Referent()->*forward)() == from)
    from = Pop();
}

#endif  // KELMSGFEAMESSAGING_COW_BTREEITERATOR_H_
