#include "BusTopics.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <utility>

namespace kelbus {
namespace {

bool IsPlain(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '.' || c == '_';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> UnescapeLevel(std::string_view level) {
  std::string name;
  for (std::size_t i = 0; i < level.size(); ++i) {
    const auto byte = static_cast<unsigned char>(level[i]);
    if (IsPlain(byte)) {
      name += level[i];
      continue;
    }
    const int high = byte == '%' && i + 2 < level.size() ? HexValue(level[i + 1]) : -1;
    const int low = high >= 0 ? HexValue(level[i + 2]) : -1;
    // An escaped plain byte would give one name two topics.
    if (low < 0 || IsPlain(static_cast<unsigned char>(high * 16 + low)))
      return std::nullopt;
    name += static_cast<char>(high * 16 + low);
    i += 2;
  }
  if (name.empty())
    return std::nullopt;
  return name;
}

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

BusTopics::BusTopics(std::string nameSpace, std::string holderSecret)
    : m_messagePrefix(nameSpace + "/a/"),
      m_presencePrefix(nameSpace + "/p/"),
      m_communicatorPrefix(nameSpace + "/c/"),
      m_holderSecret(std::move(holderSecret)) {}

void BusTopics::MessageTopic(std::string_view app, std::string_view from, std::string* out) const {
  out->assign(m_messagePrefix);
  AppendEscapedLevel(app, out);
  if (!from.empty()) {
    *out += '/';
    AppendEscapedLevel(from, out);
  }
}

std::string BusTopics::MessageFilter(std::string_view app) const {
  std::string filter = m_messagePrefix;
  AppendEscapedLevel(app, &filter);
  return filter + "/#";
}

std::string BusTopics::PresenceTopic(std::string_view app) const {
  std::string topic = m_presencePrefix;
  AppendEscapedLevel(app, &topic);
  return topic;
}

std::string BusTopics::PresenceFilter() const {
  return m_presencePrefix + "+";
}

std::string BusTopics::CreditTopic(std::string_view from, std::string_view senderTag) const {
  std::string topic = m_communicatorPrefix;
  if (!from.empty()) {
    AppendEscapedLevel(from, &topic);
    topic += '/';
  }
  return topic + std::string(senderTag);
}

std::string BusTopics::HolderClientId(std::string_view app) const {
  std::string id;
  MessageTopic(app, {}, &id);
  if (m_holderSecret.empty())
    return id;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  HMAC(EVP_sha256(), m_holderSecret.data(), static_cast<int>(m_holderSecret.size()),
       reinterpret_cast<const unsigned char*>(id.data()), id.size(), digest, &length);
  // 128 bits are beyond guessing, and keep the identifier short.
  static constexpr char kHex[] = "0123456789abcdef";
  id += '/';
  for (unsigned int i = 0; i < length / 2; ++i) {
    id += kHex[digest[i] >> 4];
    id += kHex[digest[i] & 0x0F];
  }
  return id;
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

BusTopics::SenderLevel BusTopics::SenderOf(std::string_view topic, std::string_view app,
                                           std::string* from) const {
  std::string bare;
  MessageTopic(app, {}, &bare);
  if (!topic.starts_with(bare))
    return SenderLevel::kMalformed;
  topic.remove_prefix(bare.size());
  if (topic.empty())
    return SenderLevel::kNone;
  if (topic.front() != '/')
    return SenderLevel::kMalformed;
  std::optional<std::string> name = UnescapeLevel(topic.substr(1));
  if (!name)
    return SenderLevel::kMalformed;
  *from = std::move(*name);
  return SenderLevel::kApplication;
}

bool BusTopics::IsCreditTopic(std::string_view topic) const {
  return topic.starts_with(m_communicatorPrefix);
}

bool BusTopics::IsPresenceTopic(std::string_view topic) const {
  return topic.starts_with(m_presencePrefix);
}

}  // namespace kelbus
