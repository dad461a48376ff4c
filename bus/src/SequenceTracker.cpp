#include "SequenceTracker.h"

#include <charconv>

namespace kelbus {
namespace {

constexpr std::size_t kTagDigits = 16;

}  // namespace

std::string SenderTag(std::uint64_t sender) {
  std::string tag(kTagDigits, '0');
  for (std::size_t i = kTagDigits; i > 0; --i, sender >>= 4)
    tag[i - 1] = "0123456789abcdef"[sender & 0xF];
  return tag;
}

std::string SequenceLabel(std::uint64_t sender, std::uint64_t sequence) {
  return SenderTag(sender) + ":" + std::to_string(sequence);
}

bool ParseSequenceLabel(std::string_view label, std::uint64_t* sender, std::uint64_t* sequence) {
  if (label.size() <= kTagDigits + 1 || label[kTagDigits] != ':')
    return false;
  const char* tagEnd = label.data() + kTagDigits;
  const char* end = label.data() + label.size();
  const auto tag = std::from_chars(label.data(), tagEnd, *sender, 16);
  const auto number = std::from_chars(tagEnd + 1, end, *sequence);
  return tag.ec == std::errc() && tag.ptr == tagEnd && number.ec == std::errc() &&
         number.ptr == end && SenderTag(*sender) == label.substr(0, kTagDigits);
}

SequenceTracker::Verdict SequenceTracker::Arrived(std::uint64_t sender, std::uint64_t sequence) {
  const auto known = m_senders.find(sender);
  if (known == m_senders.end()) {
    if (m_senders.size() == m_capacity) {
      m_senders.erase(m_byAge.back());
      m_byAge.pop_back();
    }
    m_byAge.push_front(sender);
    m_senders.emplace(sender, Entry{sequence, m_byAge.begin()});
    return {true, 0};
  }
  Entry& entry = known->second;
  m_byAge.splice(m_byAge.begin(), m_byAge, entry.age);
  if (sequence <= entry.last)
    return {false, 0};
  const std::uint64_t lost = sequence - entry.last - 1;
  entry.last = sequence;
  return {true, lost};
}

}  // namespace kelbus
