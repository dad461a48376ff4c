#include "SendWindow.h"

namespace kelbus {

void SendWindow::Add(int mid, std::size_t cost) {
  if (m_count == m_ring.size())
    Grow();
  At(m_count) = {mid, cost};
  ++m_count;
  m_bytes += cost;
}

void SendWindow::Acknowledge(int mid) {
  // The broker acknowledges in order, so the match is nearly always first.
  for (std::size_t i = 0; i < m_count; ++i) {
    Entry& entry = At(i);
    if (entry.mid != mid || entry.cost == 0)
      continue;
    m_bytes -= entry.cost;
    entry.cost = 0;
    break;
  }
  while (m_count > 0 && At(0).cost == 0) {
    m_head = (m_head + 1) % m_ring.size();
    --m_count;
  }
}

void SendWindow::Grow() {
  std::vector<Entry> larger(m_ring.size() * 2);
  for (std::size_t i = 0; i < m_count; ++i)
    larger[i] = At(i);
  m_ring.swap(larger);
  m_head = 0;
}

}  // namespace kelbus
