#include "DepartureHold.h"

#include <algorithm>
#include <utility>

namespace kelbus {

DepartureHold::DepartureHold(std::chrono::seconds period, Confirmed confirmed)
    : m_period(period), m_confirmed(std::move(confirmed)) {}

void DepartureHold::Departed(const ProcessRecord& departure, bool report) {
  if (m_period.count() == 0) {
    m_confirmed(departure, report);
    return;
  }
  {
    std::lock_guard lock(m_mutex);
    if (m_stopped)
      return;
    const auto same = std::ranges::find_if(m_held, [&](const Held& held) {
      return held.departure.claim == departure.claim && held.departure.app == departure.app;
    });
    if (same != m_held.end()) {
      same->report = same->report || report;
      return;
    }
    m_held.push_back({departure, report, Clock::now() + m_period});
    if (!m_thread.joinable())
      m_thread = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  }
  m_changed.notify_all();
}

void DepartureHold::Present(const ProcessRecord& presence) {
  std::lock_guard lock(m_mutex);
  std::erase_if(m_held, [&](const Held& held) {
    return held.departure.claim == presence.claim && held.departure.app == presence.app;
  });
}

void DepartureHold::ConnectionUp(bool up) {
  {
    std::lock_guard lock(m_mutex);
    if (up && !m_up) {
      const auto due = Clock::now() + m_period;
      for (Held& held : m_held)
        held.due = std::max(held.due, due);
    }
    m_up = up;
  }
  m_changed.notify_all();
}

void DepartureHold::Stop() {
  {
    std::lock_guard lock(m_mutex);
    m_stopped = true;
    m_held.clear();
  }
  m_thread.request_stop();
  if (m_thread.joinable())
    m_thread.join();
}

void DepartureHold::Run(const std::stop_token& stop) {
  std::unique_lock lock(m_mutex);
  while (m_changed.wait(lock, stop, [this] { return m_up && !m_held.empty(); })) {
    const auto now = Clock::now();
    const auto due = std::ranges::min(m_held, {}, &Held::due).due;
    if (now < due) {
      // Whatever changes meanwhile only cancels departures or puts them off.
      m_changed.wait_until(lock, stop, due, [] { return false; });
      continue;
    }
    std::vector<Held> confirmed;
    std::erase_if(m_held, [&](const Held& held) {
      if (held.due > now)
        return false;
      confirmed.push_back(held);
      return true;
    });
    lock.unlock();
    for (const Held& held : confirmed)
      m_confirmed(held.departure, held.report);
    lock.lock();
  }
}

}  // namespace kelbus
