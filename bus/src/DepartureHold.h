// Holds departure records back until they are confirmed.
//
// A broker that stops cleanly (mosquitto 2.0 on SIGTERM) publishes the will
// of every connected holder as it goes, though each of them comes back with
// the broker and republishes its presence record under the same claim.  So
// a departure counts only once its holder has stayed away for the
// confirmation period, while the communicator's own connection was up: a
// presence record of the same claim in the meantime cancels it.  A period of
// 0 passes every departure on at once.
//
// Thread-safe: the network threads hand records in; confirmed departures
// go out on a thread of the hold's own, started by the first record held.
#ifndef KELBUS_SRC_DEPARTUREHOLD_H_
#define KELBUS_SRC_DEPARTUREHOLD_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>
#include <vector>

#include "ProcessRecord.h"

namespace kelbus {

class DepartureHold {
 public:
  using Clock = std::chrono::steady_clock;
  // A confirmed departure, and whether it is to be reported to the
  // communicator's disconnect callback.
  using Confirmed = std::function<void(const ProcessRecord& departure, bool report)>;

  DepartureHold(std::chrono::seconds period, Confirmed confirmed);
  DepartureHold(const DepartureHold&) = delete;
  DepartureHold& operator=(const DepartureHold&) = delete;

  // The same departure arriving again while held is held once, reported if
  // either arrival was to be.
  void Departed(const ProcessRecord& departure, bool report);
  void Present(const ProcessRecord& presence);
  // The communicator's connection went down or came back: nothing is
  // confirmed while it is down, and nothing until a full period after it
  // came back.
  void ConnectionUp(bool up);
  // Drops what it holds and confirms nothing more.
  void Stop();

 private:
  struct Held {
    ProcessRecord departure;
    bool report;
    Clock::time_point due;
  };

  void Run(const std::stop_token& stop);

  const std::chrono::seconds m_period;
  const Confirmed m_confirmed;
  std::mutex m_mutex;
  std::condition_variable_any m_changed;
  std::vector<Held> m_held;
  bool m_up = true;
  bool m_stopped = false;
  // Declared last: its thread uses everything above.
  std::jthread m_thread;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_DEPARTUREHOLD_H_
