// The messages of one connection that the broker has not acknowledged yet,
// and their cost in bytes.  Not locked: its owner's mutex guards it.
#ifndef KELBUS_SRC_SENDWINDOW_H_
#define KELBUS_SRC_SENDWINDOW_H_

#include <cstddef>
#include <vector>

namespace kelbus {

class SendWindow {
 public:
  // Whether a message of `cost` bytes may go now under a window of
  // `capacity` bytes.  A message larger than the window goes alone.
  bool HasRoomFor(std::size_t cost, std::size_t capacity) const {
    return m_bytes == 0 || m_bytes + cost <= capacity;
  }
  bool Empty() const { return m_count == 0; }

  void Add(int mid, std::size_t cost);
  // The broker acknowledged `mid`; unknown identifiers are ignored.
  void Acknowledge(int mid);

 private:
  struct Entry {
    int mid;
    std::size_t cost;  // 0 once acknowledged out of order
  };

  Entry& At(std::size_t i) { return m_ring[(m_head + i) % m_ring.size()]; }
  void Grow();

  // A ring, so that steady sending allocates nothing.
  std::vector<Entry> m_ring = std::vector<Entry>(64);
  std::size_t m_head = 0;
  std::size_t m_count = 0;
  std::size_t m_bytes = 0;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_SENDWINDOW_H_
