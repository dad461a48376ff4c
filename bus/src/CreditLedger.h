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

  enum class Room { kGo, kGone, kTimedOut, kAbandoned };
  // Waits until a message of `cost` bytes may go to `app`, its holder has
  // left, `deadline` passes or `abandon` (checked on every Wake) holds.
  Room WaitForRoom(std::string_view app, std::size_t cost, Clock::time_point deadline,
                   const std::function<bool()>& abandon);
  // The message NextSequence numbered went to `app`.
  void Sent(std::string_view app, std::size_t cost);

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
  // Counts nothing outstanding any more, for every target.
  void ForgetOutstanding();
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
    std::deque<std::pair<std::uint64_t, std::size_t>> outstanding;  // sequence, cost
    std::size_t outstandingBytes = 0;
  };

  const std::size_t m_window;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::map<std::string, Target, std::less<>> m_targets;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_CREDITLEDGER_H_
