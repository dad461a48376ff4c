#include "SequenceTracker.h"

#include <charconv>
#include <iterator>
#include <limits>

namespace kelbus {
namespace {

constexpr std::size_t kTagDigits = 16;
constexpr char kHexDigits[] = "0123456789abcdef";

// Replaces `text` by the tag of `sender`.
void WriteTag(std::uint64_t sender, std::string* text) {
  text->assign(kTagDigits, '0');
  for (std::size_t i = kTagDigits; i > 0; --i, sender >>= 4)
    (*text)[i - 1] = kHexDigits[sender & 0xF];
}

}  // namespace

std::string SenderTag(std::uint64_t sender) {
  std::string tag;
  WriteTag(sender, &tag);
  return tag;
}

void SequenceLabel(std::uint64_t sender, std::uint64_t sequence, std::string* label) {
  WriteTag(sender, label);
  char digits[std::numeric_limits<std::uint64_t>::digits10 + 2];
  const auto end = std::to_chars(std::begin(digits), std::end(digits), sequence).ptr;
  label->push_back(':');
  label->append(std::begin(digits), end);
}

bool ParseSequenceLabel(std::string_view label, std::uint64_t* sender, std::uint64_t* sequence) {
  if (label.size() <= kTagDigits + 1 || label[kTagDigits] != ':')
    return false;
  // Exactly what WriteTag writes, so that one sender has one label.
  const std::string_view tag = label.substr(0, kTagDigits);
  if (tag.find_first_not_of(kHexDigits) != std::string_view::npos)
    return false;
  std::from_chars(tag.data(), tag.data() + tag.size(), *sender, 16);
  const char* end = label.data() + label.size();
  const auto number = std::from_chars(tag.data() + kTagDigits + 1, end, *sequence);
  return number.ec == std::errc() && number.ptr == end;
}

SequenceTracker::Verdict SequenceTracker::Arrived(std::uint64_t sender, std::uint64_t sequence,
                                                  Clock::time_point now) {
  const auto known = m_senders.find(sender);
  if (known == m_senders.end()) {
    if (m_senders.size() == m_capacity) {
      m_senders.erase(m_byAge.back());
      m_byAge.pop_back();
    }
    m_byAge.push_front(sender);
    m_senders.emplace(sender, Entry{sequence, m_byAge.begin(), {}, {}, {}});
    return {Kind::kNext, 0, sequence, false};
  }
  Entry& entry = known->second;
  m_byAge.splice(m_byAge.begin(), m_byAge, entry.age);
  if (sequence <= entry.last)
    return {Kind::kRepeat, 0, entry.last, MayRemind(&entry.repeatRemindedAt, now)};
  if (sequence > entry.last + 1) {
    if (!entry.gapSince)
      entry.gapSince = now;
    if (now - *entry.gapSince < m_patience)
      return {Kind::kAhead, 0, entry.last, MayRemind(&entry.aheadRemindedAt, now)};
  }
  const std::uint64_t lost = sequence - entry.last - 1;
  entry.last = sequence;
  entry.gapSince.reset();
  return {Kind::kNext, lost, sequence, false};
}

bool SequenceTracker::MayRemind(Clock::time_point* given, Clock::time_point now) const {
  if (now - *given < m_reminderInterval)
    return false;
  *given = now;
  return true;
}

}  // namespace kelbus
