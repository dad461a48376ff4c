// cow_CountedHld: the holder part of a copy-on-write handle.
//
// A holder refers to one heap object (the referent) and to the count cell
// that all holders of that referent share; the cell holds the number of
// holders.  The referent is destroyed with delete, so its class decides the
// allocator (the tree nodes use mem_OperatorNewThrow / mem_Free); the cell is
// allocated with mem_OperatorNewTinyThrow and freed with mem_Free.
//
// Counts are plain integers: holders of one referent belong to one thread.
#ifndef KELMSGFEAMESSAGING_COW_COUNTEDHLD_H_
#define KELMSGFEAMESSAGING_COW_COUNTEDHLD_H_

#include <cstdint>

#include <KelMsgFeaMessaging/mem_Operators.h>

template <class T>
class cow_CountedHld {
 public:
  cow_CountedHld(const cow_CountedHld&) = delete;
  cow_CountedHld& operator=(const cow_CountedHld&) = delete;

  // Number of holders that share the referent (read-only inspection).
  unsigned RefCount() const { return *m_refCount; }
  // The referent, for reading only; writers go through the handle's Get().
  const T* Referent() const { return m_referent; }

 protected:
  // Takes `refCount`, a cell that already counts this holder, and `referent`.
  cow_CountedHld(std::uint32_t* refCount, T* referent) noexcept
      : m_refCount(refCount), m_referent(referent) {}
  ~cow_CountedHld() = default;

  // Destroys the referent and frees the count cell; both fields become null.
  void Delete() noexcept {
    DeleteReferent();
    mem_Free(m_refCount);
    m_refCount = nullptr;
  }
  // Destroys the referent only; the cell stays with this holder.
  void DeleteReferent() noexcept {
    delete m_referent;
    m_referent = nullptr;
  }
  // Gives up this holder's share; the last holder deletes referent and cell.
  void Release() noexcept {
    if (--*m_refCount == 0)
      Delete();
  }

  std::uint32_t* m_refCount;
  T* m_referent;
};

#endif  // KELMSGFEAMESSAGING_COW_COUNTEDHLD_H_
