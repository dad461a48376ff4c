// The process's queue of received messages and departure reports, filled by
// the network threads and emptied by the threads that wait in the bus.
#ifndef KELBUS_SRC_DISPATCHQUEUE_H_
#define KELBUS_SRC_DISPATCHQUEUE_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kelbus {

// Where a message came from, for the sender's credit window: its sender
// identifier (0: a sender that does not number its messages) and sequence
// number.
struct Origin {
  std::uint64_t sender = 0;
  std::uint64_t sequence = 0;
};

struct ReceivedMessage {
  std::string type;
  std::vector<unsigned char> bytes;
  Origin origin;
  // The application the broker let send it; none when the sender holds no
  // application or the bus cannot tell.
  std::optional<std::string> sender;
};

struct Departure {
  int pid = 0;
  std::string app;
  std::string host;
  std::string user;
};

struct Delivery {
  int communicator = 0;
  std::variant<ReceivedMessage, Departure> content;
};

class DispatchQueue {
 public:
  using Clock = std::chrono::steady_clock;
  // No deadline: wait as long as it takes.
  using Deadline = std::optional<Clock::time_point>;
  static constexpr int kAnyCommunicator = 0;

  enum class PopResult { kDelivered, kTimedOut, kWoken };

  void Push(Delivery delivery);
  // Makes every waiting Pop return kWoken, so that waiters look at the state
  // of their communicators again.
  void Wake();
  std::uint64_t Wakes() const;

  // Takes the oldest delivery for `communicator` (or for any, with
  // kAnyCommunicator) into `*out`, waiting until `deadline` for one.  Returns
  // kWoken as soon as Wake has been called more often than `*wakesSeen`,
  // and updates `*wakesSeen`.
  PopResult Pop(int communicator, Deadline deadline, std::uint64_t* wakesSeen, Delivery* out);

  // Drops everything queued for `communicator`.
  void Discard(int communicator);

  // Storage for the bytes of a message that arrives, with the room of a
  // dispatched one when there is one: the network threads fill it and the
  // waiting threads free it, and the allocator answers a large block freed on
  // another thread by handing its pages back to the system, to be faulted in
  // again for the next message.
  std::vector<unsigned char> SpareBytes();
  // Keeps the storage of a dispatched message for SpareBytes.
  void Recycle(Delivery delivery);

 private:
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::deque<Delivery> m_deliveries;
  std::uint64_t m_wakes = 0;
  std::vector<std::vector<unsigned char>> m_spareBytes;
};

// What a transport sees of the queue: the entrance for one communicator.
class Inbox {
 public:
  Inbox(DispatchQueue& queue, int communicator) : m_queue(&queue), m_communicator(communicator) {}

  void Message(std::string_view type, const void* bytes, std::size_t size, Origin origin = {},
               std::optional<std::string> sender = std::nullopt) const;
  void Departed(Departure departure) const;
  // The communicator's state changed (connection, name).
  void Wake() const { m_queue->Wake(); }
  int Communicator() const { return m_communicator; }

 private:
  DispatchQueue* m_queue;
  int m_communicator;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_DISPATCHQUEUE_H_
