#include "BusAddress.h"

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace kelbus {
namespace {

constexpr std::string_view kMqttScheme = "mqtt://";
constexpr std::string_view kMqttsScheme = "mqtts://";
constexpr std::string_view kLocalUrl = "local:";
constexpr std::string_view kHostNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._";
constexpr std::string_view kIpv6Characters = "0123456789ABCDEFabcdef:.";

// Undoes %XX escapes; fails on a broken one.
std::optional<std::string> PercentDecode(std::string_view text) {
  std::string decoded;
  for (std::size_t percent = text.find('%'); percent != std::string_view::npos;
       percent = text.find('%')) {
    decoded.append(text.substr(0, percent));
    const std::string_view hex = text.substr(percent + 1, 2);
    unsigned value = 0;
    const auto [end, error] = std::from_chars(hex.data(), hex.data() + hex.size(), value, 16);
    if (hex.size() != 2 || error != std::errc() || end != hex.data() + hex.size())
      return std::nullopt;
    decoded += static_cast<char>(value);
    text.remove_prefix(percent + 3);
  }
  decoded.append(text);
  return decoded;
}

bool ParsePort(std::string_view text, int* port) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size())
    return false;
  if (value < 1 || value > 65535)
    return false;
  *port = value;
  return true;
}

bool ParseCredentials(std::string_view text, BusAddress* address, std::string* why) {
  const std::size_t colon = text.find(':');
  const auto user = PercentDecode(text.substr(0, colon));
  const auto password =
      PercentDecode(colon == std::string_view::npos ? std::string_view() : text.substr(colon + 1));
  if (!user || !password) {
    *why = "broken %-escape in the user or password";
    return false;
  }
  if (user->empty()) {
    *why = "empty user name before '@'";
    return false;
  }
  address->user = *user;
  address->password = *password;
  return true;
}

bool ParseHostAndPort(std::string_view text, BusAddress* address, std::string* why) {
  std::string_view host = text;
  std::optional<std::string_view> port;
  if (text.starts_with('[')) {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos) {
      *why = "unclosed '[' around the host";
      return false;
    }
    host = text.substr(1, close - 1);
    const std::string_view rest = text.substr(close + 1);
    if (!rest.empty() && rest.front() != ':') {
      *why = "unexpected text after ']'";
      return false;
    }
    if (!rest.empty())
      port = rest.substr(1);
  } else if (const std::size_t colon = text.rfind(':'); colon != std::string_view::npos) {
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  if (host.empty()) {
    *why = "no host";
    return false;
  }
  const bool bracketed = text.starts_with('[');
  if (host.find_first_not_of(bracketed ? kIpv6Characters : kHostNameCharacters) !=
      std::string_view::npos) {
    *why = bracketed ? "the host in brackets is not an IPv6 address"
                     : "the host may hold only letters, digits, '-', '.' and '_'";
    return false;
  }
  address->host = std::string(host);
  address->port = address->kind == BusAddress::Kind::kMqtts ? kDefaultMqttsPort : kDefaultMqttPort;
  if (port && !ParsePort(*port, &address->port)) {
    *why = "the port is not a number from 1 to 65535";
    return false;
  }
  return true;
}

bool ParseNamespace(std::string_view text, BusAddress* address, std::string* why) {
  while (!text.empty() && text.back() == '/')
    text.remove_suffix(1);
  if (text.empty()) {
    address->nameSpace = kDefaultNamespace;
    return true;
  }
  if (text.find_first_of("+%") != std::string_view::npos ||
      text.find('\0') != std::string_view::npos) {
    *why = "the namespace may not contain '+' or '%'";
    return false;
  }
  address->nameSpace = std::string(text);
  return true;
}

}  // namespace

std::string BusAddress::Describe() const {
  if (kind == Kind::kLocal)
    return std::string(kLocalUrl);
  std::string url(kind == Kind::kMqtts ? kMqttsScheme : kMqttScheme);
  if (!user.empty())
    url += user + "@";
  const bool bracketed = host.find(':') != std::string::npos;
  url += bracketed ? "[" + host + "]" : host;
  url += ":" + std::to_string(port) + "/" + nameSpace;
  return url;
}

std::optional<BusAddress> ParseBusUrl(const std::string& url, std::string* why) {
  BusAddress address;
  if (url == kLocalUrl) {
    address.kind = BusAddress::Kind::kLocal;
    address.nameSpace = kDefaultNamespace;
    return address;
  }
  std::string_view rest(url);
  if (rest.starts_with(kMqttsScheme)) {
    address.kind = BusAddress::Kind::kMqtts;
    rest.remove_prefix(kMqttsScheme.size());
  } else if (rest.starts_with(kMqttScheme)) {
    rest.remove_prefix(kMqttScheme.size());
  } else {
    *why = "it starts neither with mqtt:// nor with mqtts:// nor is it local:";
    return std::nullopt;
  }
  // Options in the URL would be silently taken for part of the namespace.
  if (rest.find('?') != std::string_view::npos) {
    *why =
        "a query ('?') is not understood; TLS files and passwords come from "
        "KELBUS_CA_FILE, KELBUS_CERT_FILE, KELBUS_KEY_FILE and KELBUS_PASSWORD_FILE";
    return std::nullopt;
  }
  if (rest.find('#') != std::string_view::npos) {
    *why = "a fragment ('#') is not understood";
    return std::nullopt;
  }
  const std::size_t slash = rest.find('/');
  const std::string_view authority = rest.substr(0, slash);
  const std::string_view path =
      slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  const std::size_t at = authority.rfind('@');
  const bool credentialsOk =
      at == std::string_view::npos || ParseCredentials(authority.substr(0, at), &address, why);
  const std::string_view hostPort =
      at == std::string_view::npos ? authority : authority.substr(at + 1);
  if (!credentialsOk || !ParseHostAndPort(hostPort, &address, why) ||
      !ParseNamespace(path, &address, why)) {
    return std::nullopt;
  }
  return address;
}

std::string WithoutCredentials(const std::string& url) {
  const std::size_t at = url.rfind('@');
  if (at == std::string::npos)
    return url;
  const std::size_t scheme = url.find("://");
  const std::size_t start = scheme == std::string::npos || scheme > at ? 0 : scheme + 3;
  return url.substr(0, start) + "..." + url.substr(at);
}

std::string BusUrlFromEnvironment() {
  const char* url = std::getenv("KELBUS_URL");
  return url != nullptr && url[0] != '\0' ? std::string(url) : std::string(kDefaultBusUrl);
}

}  // namespace kelbus
