// A descriptor that a thread blocked in poll() can watch, so that other
// threads can wake it (an eventfd).  Raise from any thread; the watching
// thread clears it once woken.
#ifndef KELBUS_SRC_WAKEUP_H_
#define KELBUS_SRC_WAKEUP_H_

namespace kelbus {

class Wakeup {
 public:
  Wakeup();
  ~Wakeup();
  Wakeup(const Wakeup&) = delete;
  Wakeup& operator=(const Wakeup&) = delete;

  // -1 when the system gave none.
  int Descriptor() const { return m_descriptor; }
  void Raise() const;
  void Clear() const;

 private:
  const int m_descriptor;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_WAKEUP_H_
