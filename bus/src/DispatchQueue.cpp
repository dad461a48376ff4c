#include "DispatchQueue.h"

#include <algorithm>
#include <utility>

namespace kelbus {

void DispatchQueue::Push(Delivery delivery) {
  {
    std::lock_guard lock(m_mutex);
    m_deliveries.push_back(std::move(delivery));
  }
  m_changed.notify_all();
}

void DispatchQueue::Wake() {
  {
    std::lock_guard lock(m_mutex);
    ++m_wakes;
  }
  m_changed.notify_all();
}

std::uint64_t DispatchQueue::Wakes() const {
  std::lock_guard lock(m_mutex);
  return m_wakes;
}

DispatchQueue::PopResult DispatchQueue::Pop(int communicator, Deadline deadline,
                                            std::uint64_t* wakesSeen, Delivery* out) {
  std::unique_lock lock(m_mutex);
  const auto mine = [communicator](const Delivery& delivery) {
    return communicator == kAnyCommunicator || delivery.communicator == communicator;
  };
  for (;;) {
    const auto found = std::find_if(m_deliveries.begin(), m_deliveries.end(), mine);
    if (found != m_deliveries.end()) {
      *out = std::move(*found);
      m_deliveries.erase(found);
      return PopResult::kDelivered;
    }
    if (m_wakes != *wakesSeen) {
      *wakesSeen = m_wakes;
      return PopResult::kWoken;
    }
    if (!deadline) {
      m_changed.wait(lock);
    } else if (m_changed.wait_until(lock, *deadline) == std::cv_status::timeout) {
      // A delivery may have raced the deadline; the caller's next call takes
      // it.
      return PopResult::kTimedOut;
    }
  }
}

void DispatchQueue::Discard(int communicator) {
  std::lock_guard lock(m_mutex);
  std::erase_if(m_deliveries,
                [communicator](const Delivery& d) { return d.communicator == communicator; });
}

void Inbox::Message(std::string_view type, const void* bytes, std::size_t size, Origin origin,
                    std::optional<std::string> sender) const {
  const auto* first = static_cast<const unsigned char*>(bytes);
  m_queue->Push(
      {m_communicator,
       ReceivedMessage{std::string(type), {first, first + size}, origin, std::move(sender)}});
}

void Inbox::Departed(Departure departure) const {
  m_queue->Push({m_communicator, std::move(departure)});
}

}  // namespace kelbus
