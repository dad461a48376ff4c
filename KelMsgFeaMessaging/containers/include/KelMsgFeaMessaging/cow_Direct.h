// cow_Direct: the copy policy of a copy-on-write handle that copies its
// referent with the referent's own copy constructor.
//
// For tree nodes that copy is one level deep: the new node shares the
// original's children (see cow_BtreeNode), so a write copies only the nodes
// on its path.
#ifndef KELMSGFEAMESSAGING_COW_DIRECT_H_
#define KELMSGFEAMESSAGING_COW_DIRECT_H_

template <class T>
struct cow_Direct {
  // A new heap copy of `original`, owned by the caller (released with delete).
  static T* Copy(const T& original) { return new T(original); }
};

#endif  // KELMSGFEAMESSAGING_COW_DIRECT_H_
