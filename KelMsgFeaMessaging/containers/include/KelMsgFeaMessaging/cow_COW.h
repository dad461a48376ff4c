// cow_COW: a copy-on-write handle to a heap object shared by reference count.
//
// Copying a handle shares the referent and its count cell; Get() hands out the
// referent for writing, after giving this handle a copy of its own (made by
// CopyPolicy::Copy) if other handles share it.  A handle that is destroyed or
// assigned gives up its share, and the last one deletes referent and cell.
//
// Handle objects are made with mem_OperatorNewThrow and freed with mem_Free
// (class-level new/delete), like the tree nodes they point to.
#ifndef KELMSGFEAMESSAGING_COW_COW_H_
#define KELMSGFEAMESSAGING_COW_COW_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include <KelMsgFeaMessaging/cow_CountedHld.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

template <class T, class CopyPolicy>
class cow_COW : public cow_CountedHld<T> {
 public:
  // Adopts `adopted` (non-null, made with new) under a new count of 1.  The
  // referent is deleted if no count cell can be had.
  explicit cow_COW(T* adopted) : cow_CountedHld<T>(NewCountCellFor(adopted), adopted) {}
  // Adopts a CopyPolicy::Copy of `original` under a new count of 1.
  explicit cow_COW(const T& original) : cow_COW(CopyPolicy::Copy(original)) {}
  // Shares the other handle's referent and count cell.
  cow_COW(const cow_COW& other) noexcept : cow_CountedHld<T>(other.m_refCount, other.m_referent) {
    ++*this->m_refCount;
  }
  // Gives up this handle's share and shares the other's.  The other's count
  // is taken first, so assigning a handle of the same referent is harmless.
  cow_COW& operator=(const cow_COW& other) noexcept {
    ++*other.m_refCount;
    this->Release();
    this->m_refCount = other.m_refCount;
    this->m_referent = other.m_referent;
    return *this;
  }
  ~cow_COW() { this->Release(); }

  // The referent for writing.  When other handles share it, this handle
  // first moves to a copy of its own (count 1); the others keep the original.
  T* Get() {
    if (*this->m_refCount == 1)
      return this->m_referent;
    std::unique_ptr<T> copy(CopyPolicy::Copy(*this->m_referent));
    // A copy policy may drop other holders of the original while copying;
    // the original is then this handle's alone and its cell can be kept.
    if (*this->m_refCount != 1) {
      std::uint32_t* ownCell = NewCountCell();
      --*this->m_refCount;
      this->m_refCount = ownCell;
    } else {
      this->DeleteReferent();
    }
    this->m_referent = copy.release();
    return this->m_referent;
  }

  static void* operator new(std::size_t size) { return mem_OperatorNewThrow(size); }
  static void operator delete(void* memory) noexcept { mem_Free(memory); }

 private:
  static std::uint32_t* NewCountCell() {
    auto* cell = static_cast<std::uint32_t*>(mem_OperatorNewTinyThrow(sizeof(std::uint32_t)));
    *cell = 1;
    return cell;
  }
  static std::uint32_t* NewCountCellFor(T* adopted) {
    std::unique_ptr<T> owner(adopted);
    std::uint32_t* cell = NewCountCell();
    owner.release();
    return cell;
  }
};

#endif  // KELMSGFEAMESSAGING_COW_COW_H_
