// The reference-counting contract shared by every initialise and finalise
// entry point of the library and of its sibling libraries.  A counter holds
// no resource; it is not locked, since start-up and shut-down run on one
// thread.
#ifndef KELMSGFEAMESSAGING_KELMODULECOUNTER_H_
#define KELMSGFEAMESSAGING_KELMODULECOUNTER_H_

class KelModuleCounter {
 public:
  // Counts one initialisation; the first one adds 1 to the shared count `n`.
  void Initialize(int& n) noexcept {
    if (m_count++ == 0)
      ++n;
  }
  // Counts one finalisation; the one that brings the count to 0 takes 1 from
  // `n`.  An unbalanced finalise drives the count below 0.
  void Finalize(int& n) noexcept {
    if (--m_count == 0)
      --n;
  }
  int Count() const noexcept { return m_count; }

 private:
  int m_count = 0;
};

#endif  // KELMSGFEAMESSAGING_KELMODULECOUNTER_H_
