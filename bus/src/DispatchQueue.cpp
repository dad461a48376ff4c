#include "DispatchQueue.h"

#include <algorithm>
#include <utility>

namespace kelbus {
namespace {

// Enough for the messages of a few senders in flight at once; at most 4 MiB
// kept idle, half a receive window.
constexpr std::size_t kSpareBuffers = 4;
constexpr std::size_t kLargestSpareBuffer = 1 << 20;

}  // namespace

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

std::vector<unsigned char> DispatchQueue::SpareBytes() {
  std::lock_guard lock(m_mutex);
  if (m_spareBytes.empty())
    return {};
  std::vector<unsigned char> spare = std::move(m_spareBytes.back());
  m_spareBytes.pop_back();
  return spare;
}

void DispatchQueue::Recycle(Delivery delivery) {
  auto* message = std::get_if<ReceivedMessage>(&delivery.content);
  if (message == nullptr || message->bytes.capacity() == 0 ||
      message->bytes.capacity() > kLargestSpareBuffer) {
    return;
  }
  std::lock_guard lock(m_mutex);
  if (m_spareBytes.size() < kSpareBuffers)
    m_spareBytes.push_back(std::move(message->bytes));
}

void Inbox::Message(std::string_view type, const void* bytes, std::size_t size, Origin origin,
                    std::optional<std::string> sender) const {
  const auto* first = static_cast<const unsigned char*>(bytes);
  std::vector<unsigned char> copy = m_queue->SpareBytes();
  copy.assign(first, first + size);
  m_queue->Push({m_communicator,
                 ReceivedMessage{std::string(type), std::move(copy), origin, std::move(sender)}});
}

void Inbox::Departed(Departure departure) const {
  m_queue->Push({m_communicator, std::move(departure)});
}

}  // namespace kelbus
