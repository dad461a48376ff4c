// What a receiver remembers of its senders' sequence numbers, to take each
// sender's messages once and in order.  Each sender numbers its messages to
// one application 1, 2, 3, ...; a sender not seen before starts wherever it
// is.  A message that comes after a gap is held back (dropped): its sender
// keeps what its receiver has not reported dispatched and sends it again
// when asked, in order.  Only a gap that lasts longer than the patience
// given, a sender that cannot fill it (it died), is given up on, with the
// count of the messages lost.  Not locked: its owner's mutex guards it.
#ifndef KELBUS_SRC_SEQUENCETRACKER_H_
#define KELBUS_SRC_SEQUENCETRACKER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <optional>
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
  using Clock = std::chrono::steady_clock;

  // Remembers at most `capacity` senders, forgetting the one heard from
  // least recently.  Waits `patience` for a gap to be filled, and reminds a
  // sender at most once every `reminderInterval` of each kind of news.
  SequenceTracker(std::size_t capacity, Clock::duration patience, Clock::duration reminderInterval)
      : m_capacity(capacity), m_patience(patience), m_reminderInterval(reminderInterval) {}

  enum class Kind {
    kNext,    // to be delivered
    kRepeat,  // seen before
    kAhead,   // after a gap: held back until what is missing comes again
  };
  struct Verdict {
    Kind kind;
    std::uint64_t lost;  // kNext: messages given up on just before this one
    std::uint64_t last;  // the last message taken from this sender so far
    // kRepeat: time to tell the sender again what was dispatched (its
    // reports may have been lost); kAhead: time to ask it for what follows
    // `last`.
    bool remind;
  };
  Verdict Arrived(std::uint64_t sender, std::uint64_t sequence, Clock::time_point now);

 private:
  struct Entry {
    std::uint64_t last;
    std::list<std::uint64_t>::iterator age;
    std::optional<Clock::time_point> gapSince;  // first message held back
    Clock::time_point repeatRemindedAt{};
    Clock::time_point aheadRemindedAt{};
  };

  // Whether a reminder last given at `*given` may go again; notes it if so.
  bool MayRemind(Clock::time_point* given, Clock::time_point now) const;

  const std::size_t m_capacity;
  const Clock::duration m_patience;
  const Clock::duration m_reminderInterval;
  std::unordered_map<std::uint64_t, Entry> m_senders;
  std::list<std::uint64_t> m_byAge;  // most recent first
};

}  // namespace kelbus

#endif  // KELBUS_SRC_SEQUENCETRACKER_H_
