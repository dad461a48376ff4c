// What a communicator knows of each application it sends to: the numbering
// of its messages, the presence record of the application's holder, and the
// credit window that holder grants it.
//
// The window counts per presence claim: the bytes of the messages sent to
// the holder of the moment that it has not yet reported dispatched.  A new
// holder starts afresh, and a target without presence record counts
// nothing, since nobody would report.
//
// A holder reports once it has dispatched a report step (a quarter of the
// window) since its last report, and a sender never waits while less than a
// step is outstanding: so every wait ends with a report, and a holder that
// keeps up reports once a step rather than once a message.  That also lets a
// message larger than the window go, after less than a step.
//
// Until a report covers it, a message is kept (topic, type and bytes), so
// that it can go again when the broker may have lost it: the window that
// bounds sending bounds the copies as well.
//
// A broker that drops messages while every connection stays up (a queue
// limit) leaves nothing that tells the holder: no later message shows the
// gap when the last ones are lost.  So a holder that has reported nothing
// for a while, with messages kept for it, is sent the newest again: taken,
// repeated or ahead of a gap, it draws a report or a request to send again.
// The pause before such a probe doubles while the holder stays silent.
//
// Thread-safe: the sending thread asks and records, the network threads
// report presence records and credits.
#ifndef KELBUS_SRC_CREDITLEDGER_H_
#define KELBUS_SRC_CREDITLEDGER_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ProcessRecord.h"

namespace kelbus {

class CreditLedger {
 public:
  using Clock = std::chrono::steady_clock;

  explicit CreditLedger(std::size_t window) : m_window(window) {}

  std::size_t ReportStep() const { return m_window / 4; }

  // Adds `app` unless known; returns whether it was new.
  bool Add(std::string_view app);
  // The sequence number that the next message to `app` (added) carries.
  std::uint64_t NextSequence(std::string_view app) const;

  // A message sent to the holder counted for, kept until it reports the
  // message dispatched.
  struct Kept {
    std::uint64_t sequence;
    std::size_t cost;
    std::string topic, type, bytes;
  };
  using Resender = std::function<void(const Kept&)>;

  enum class Room { kGo, kGone, kTimedOut, kAbandoned };
  // Waits until a message of `cost` bytes may go to `app`, its holder has
  // left, `deadline` passes or `abandon` (checked on every Wake) holds.
  Room WaitForRoom(std::string_view app, std::size_t cost, Clock::time_point deadline,
                   const std::function<bool()>& abandon);
  // The message NextSequence numbered went to `app` on `topic`.
  void Sent(std::string_view app, std::size_t cost, std::string_view topic, std::string_view type,
            std::string_view bytes);
  // Hands `resend` every message kept for the holder of claim `claim` that
  // follows `after`, in order; under the ledger's lock, so that no report
  // frees one meanwhile.
  void ResendTo(std::uint64_t claim, std::uint64_t after, const Resender& resend) const;
  // The same for every holder, of every message kept.
  void ResendAll(const Resender& resend) const;
  // Hands `resend` the newest message kept for each holder whose probe is
  // due at `now`; returns when the next may be.
  Clock::time_point ProbeSilentHolders(Clock::time_point now, const Resender& resend);

  // The probe record of claim `probe` marks where the retained presence
  // record of `app` ends.  Called before the probe is published: it may
  // come back before the publishing call returns.
  void ExpectProbe(std::string_view app, std::uint64_t probe);
  // Waits until the expected probe has come back, at most until `deadline`
  // or `abandon` holds.
  void AwaitProbe(std::string_view app, Clock::time_point deadline,
                  const std::function<bool()>& abandon);

  // Whether the window of `app` counts for its holder of claim `claim`.
  bool CountsOn(std::string_view app, std::uint64_t claim) const;
  // From the network: a presence, departure or probe record on the presence
  // topic of record.app.
  void RecordArrived(const ProcessRecord& record);
  // From the network: the holder of claim `claim` has dispatched every
  // message of this communicator up to `sequence`.
  void Credited(std::uint64_t claim, std::uint64_t sequence);
  // Makes the waits look at `abandon` again.
  void Wake();

  // Every application added so far.
  std::vector<std::string> Applications() const;

 private:
  struct Target {
    std::uint64_t sequence = 0;  // of the last message sent
    std::uint64_t probe = 0;
    bool probed = false;
    std::optional<std::uint64_t> claim;  // of the holder counted for
    bool departed = false;
    std::deque<Kept> outstanding;
    std::size_t outstandingBytes = 0;
    // When to probe next, and the pause that led there: it starts afresh
    // when the holder reports, or when a message goes with none kept.
    Clock::time_point probeDue{};
    Clock::duration probePause{};
  };

  static void HeardFrom(Target& target, Clock::time_point now);

  const std::size_t m_window;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::map<std::string, Target, std::less<>> m_targets;
  // Copies that reports freed, at most a report step of them, whose storage
  // the next messages reuse: steady sending allocates no copy.
  std::vector<Kept> m_spare;
  std::size_t m_spareBytes = 0;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_CREDITLEDGER_H_
