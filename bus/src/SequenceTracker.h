// What a receiver remembers of its senders' sequence numbers, to drop a
// message delivered again and to notice messages that never came.  Each
// sender numbers its messages to one application 1, 2, 3, ...; a sender not
// seen before starts wherever it is.  Not locked: its owner's mutex guards
// it.
#ifndef KELBUS_SRC_SEQUENCETRACKER_H_
#define KELBUS_SRC_SEQUENCETRACKER_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kelbus {

// The MQTT user property that carries a message's sender and sequence
// number, as "<sender: 16 hex digits>:<sequence: decimal>".
inline constexpr char kSequenceProperty[] = "kelbus-seq";

// A sender identifier as 16 lower-case hex digits.
std::string SenderTag(std::uint64_t sender);
// Writes the label into `label`, reusing its storage.
void SequenceLabel(std::uint64_t sender, std::uint64_t sequence, std::string* label);
// False for anything but a label that SequenceLabel makes.
bool ParseSequenceLabel(std::string_view label, std::uint64_t* sender, std::uint64_t* sequence);

class SequenceTracker {
 public:
  // Remembers at most `capacity` senders, forgetting the one heard from
  // least recently.
  explicit SequenceTracker(std::size_t capacity) : m_capacity(capacity) {}

  struct Verdict {
    bool deliver;        // false: seen before
    std::uint64_t lost;  // messages between the last one seen and this one
  };
  Verdict Arrived(std::uint64_t sender, std::uint64_t sequence);

 private:
  struct Entry {
    std::uint64_t last;
    std::list<std::uint64_t>::iterator age;
  };

  const std::size_t m_capacity;
  std::unordered_map<std::uint64_t, Entry> m_senders;
  std::list<std::uint64_t> m_byAge;  // most recent first
};

}  // namespace kelbus

#endif  // KELBUS_SRC_SEQUENCETRACKER_H_
