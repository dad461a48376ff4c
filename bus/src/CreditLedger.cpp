#include "CreditLedger.h"

#include <algorithm>

namespace kelbus {

namespace {

// Short enough that a lost message goes again within seconds.  A holder
// sent a few small messages reports nothing until it is probed, so this is
// also how soon a quiet sender frees their copies.
constexpr std::chrono::seconds kFirstProbePause{5};
// A holder stopped for long is probed about once a minute.
constexpr std::chrono::seconds kLastProbePause{60};

}  // namespace

bool CreditLedger::Add(std::string_view app) {
  std::lock_guard lock(m_mutex);
  if (m_targets.find(app) != m_targets.end())
    return false;
  m_targets.emplace(app, Target());
  return true;
}

std::uint64_t CreditLedger::NextSequence(std::string_view app) const {
  std::lock_guard lock(m_mutex);
  return m_targets.find(app)->second.sequence + 1;
}

CreditLedger::Room CreditLedger::WaitForRoom(std::string_view app, std::size_t cost,
                                             Clock::time_point deadline,
                                             const std::function<bool()>& abandon) {
  std::unique_lock lock(m_mutex);
  const Target& target = m_targets.find(app)->second;
  const auto room = [&] {
    return !target.claim || target.outstandingBytes < ReportStep() ||
           target.outstandingBytes + cost <= m_window;
  };
  const bool decided =
      m_changed.wait_until(lock, deadline, [&] { return target.departed || room() || abandon(); });
  if (target.departed)
    return Room::kGone;
  if (!decided)
    return Room::kTimedOut;
  return room() ? Room::kGo : Room::kAbandoned;
}

void CreditLedger::Sent(std::string_view app, std::size_t cost, std::string_view topic,
                        std::string_view type, std::string_view bytes) {
  std::lock_guard lock(m_mutex);
  Target& target = m_targets.find(app)->second;
  ++target.sequence;
  if (!target.claim)
    return;
  Kept kept;
  // A spare much larger than the message would hold memory that the window
  // does not count.
  if (!m_spare.empty() && m_spare.back().bytes.capacity() <= 2 * bytes.size()) {
    kept = std::move(m_spare.back());
    m_spare.pop_back();
    m_spareBytes -= kept.bytes.capacity();
  }
  if (target.outstanding.empty())
    HeardFrom(target, Clock::now());
  kept.sequence = target.sequence;
  kept.cost = cost;
  kept.topic.assign(topic);
  kept.type.assign(type);
  kept.bytes.assign(bytes);
  target.outstanding.push_back(std::move(kept));
  target.outstandingBytes += cost;
}

void CreditLedger::ResendTo(std::uint64_t claim, std::uint64_t after,
                            const Resender& resend) const {
  std::lock_guard lock(m_mutex);
  for (const auto& [app, target] : m_targets) {
    if (target.claim != claim)
      continue;
    for (const Kept& kept : target.outstanding) {
      if (kept.sequence > after)
        resend(kept);
    }
  }
}

void CreditLedger::ResendAll(const Resender& resend) const {
  std::lock_guard lock(m_mutex);
  for (const auto& [app, target] : m_targets) {
    for (const Kept& kept : target.outstanding)
      resend(kept);
  }
}

void CreditLedger::ExpectProbe(std::string_view app, std::uint64_t probe) {
  std::lock_guard lock(m_mutex);
  m_targets.find(app)->second.probe = probe;
}

void CreditLedger::AwaitProbe(std::string_view app, Clock::time_point deadline,
                              const std::function<bool()>& abandon) {
  std::unique_lock lock(m_mutex);
  const Target& target = m_targets.find(app)->second;
  m_changed.wait_until(lock, deadline, [&] { return target.probed || abandon(); });
}

bool CreditLedger::CountsOn(std::string_view app, std::uint64_t claim) const {
  std::lock_guard lock(m_mutex);
  const auto found = m_targets.find(app);
  return found != m_targets.end() && found->second.claim == claim;
}

void CreditLedger::RecordArrived(const ProcessRecord& record) {
  {
    std::lock_guard lock(m_mutex);
    const auto found = m_targets.find(record.app);
    if (found == m_targets.end())
      return;
    Target& target = found->second;
    switch (record.kind) {
      case ProcessRecord::Kind::kProbe:
        target.probed = target.probed || record.claim == target.probe;
        break;
      case ProcessRecord::Kind::kPresent:
        if (target.claim != record.claim) {
          target.claim = record.claim;
          target.outstanding.clear();
          target.outstandingBytes = 0;
        }
        target.departed = false;
        break;
      case ProcessRecord::Kind::kDeparted:
        // A late departure of a holder already replaced says nothing.
        target.departed = !target.claim || target.claim == record.claim;
        break;
    }
  }
  m_changed.notify_all();
}

void CreditLedger::Credited(std::uint64_t claim, std::uint64_t sequence) {
  {
    std::lock_guard lock(m_mutex);
    for (auto& [app, target] : m_targets) {
      if (target.claim != claim)
        continue;
      HeardFrom(target, Clock::now());
      while (!target.outstanding.empty() && target.outstanding.front().sequence <= sequence) {
        Kept& kept = target.outstanding.front();
        target.outstandingBytes -= kept.cost;
        if (m_spareBytes + kept.bytes.capacity() <= ReportStep()) {
          m_spareBytes += kept.bytes.capacity();
          m_spare.push_back(std::move(kept));
        }
        target.outstanding.pop_front();
      }
    }
  }
  m_changed.notify_all();
}

CreditLedger::Clock::time_point CreditLedger::ProbeSilentHolders(Clock::time_point now,
                                                                 const Resender& resend) {
  std::lock_guard lock(m_mutex);
  Clock::time_point next = now + kFirstProbePause;
  for (auto& [app, target] : m_targets) {
    if (target.outstanding.empty() || !target.claim || target.departed)
      continue;
    if (now >= target.probeDue) {
      resend(target.outstanding.back());
      target.probePause = std::min<Clock::duration>(2 * target.probePause, kLastProbePause);
      target.probeDue = now + target.probePause;
    }
    next = std::min(next, target.probeDue);
  }
  return next;
}

void CreditLedger::HeardFrom(Target& target, Clock::time_point now) {
  target.probePause = kFirstProbePause;
  target.probeDue = now + kFirstProbePause;
}

void CreditLedger::Wake() {
  { std::lock_guard lock(m_mutex); }
  m_changed.notify_all();
}

std::vector<std::string> CreditLedger::Applications() const {
  std::lock_guard lock(m_mutex);
  std::vector<std::string> apps;
  for (const auto& [app, target] : m_targets)
    apps.push_back(app);
  return apps;
}

}  // namespace kelbus
