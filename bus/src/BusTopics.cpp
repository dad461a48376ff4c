#include "BusTopics.h"

namespace kelbus {
namespace {

bool IsPlain(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

}  // namespace

void AppendEscapedLevel(std::string_view name, std::string* out) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  for (const char c : name) {
    const auto byte = static_cast<unsigned char>(c);
    if (IsPlain(byte)) {
      *out += c;
    } else {
      *out += '%';
      *out += kHex[byte >> 4];
      *out += kHex[byte & 0x0F];
    }
  }
}

BusTopics::BusTopics(std::string nameSpace)
    : m_messagePrefix(nameSpace + "/a/"),
      m_presencePrefix(nameSpace + "/p/"),
      m_communicatorPrefix(nameSpace + "/c/") {}

void BusTopics::MessageTopic(std::string_view app, std::string* out) const {
  out->assign(m_messagePrefix);
  AppendEscapedLevel(app, out);
}

std::string BusTopics::MessageTopic(std::string_view app) const {
  std::string topic;
  MessageTopic(app, &topic);
  return topic;
}

std::string BusTopics::PresenceTopic(std::string_view app) const {
  std::string topic = m_presencePrefix;
  AppendEscapedLevel(app, &topic);
  return topic;
}

std::string BusTopics::PresenceFilter() const {
  return m_presencePrefix + "+";
}

std::string BusTopics::CreditTopic(std::string_view senderTag) const {
  return m_communicatorPrefix + std::string(senderTag);
}

std::string BusTopics::HolderClientId(std::string_view app) const {
  return MessageTopic(app);
}

std::string BusTopics::CommunicatorClientId(std::string_view label, std::string_view host, int pid,
                                            int communicator, std::string_view instance) const {
  std::string id = m_communicatorPrefix;
  AppendEscapedLevel(host, &id);
  id += "/" + std::to_string(pid) + "/" + std::to_string(communicator) + "/";
  id += instance;
  id += "/";
  AppendEscapedLevel(label, &id);
  return id;
}

bool BusTopics::IsMessageTopic(std::string_view topic) const {
  return topic.starts_with(m_messagePrefix);
}

bool BusTopics::IsCreditTopic(std::string_view topic) const {
  return topic.starts_with(m_communicatorPrefix);
}

bool BusTopics::IsPresenceTopic(std::string_view topic) const {
  return topic.starts_with(m_presencePrefix);
}

}  // namespace kelbus
