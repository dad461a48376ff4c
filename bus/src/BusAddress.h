// Where the bus is: the parsed form of KELBUS_URL.
#ifndef KELBUS_SRC_BUSADDRESS_H_
#define KELBUS_SRC_BUSADDRESS_H_

#include <optional>
#include <string>

namespace kelbus {

struct BusAddress {
  enum class Kind { kMqtt, kLocal };

  Kind kind = Kind::kMqtt;
  std::string host;
  int port = 0;
  std::string user;  // empty: connect anonymously
  std::string password;
  std::string nameSpace;

  // The URL as it may be shown to people: the password is left out.
  std::string Describe() const;
};

inline constexpr char kDefaultBusUrl[] = "mqtt://127.0.0.1:1883";
inline constexpr int kDefaultMqttPort = 1883;
inline constexpr char kDefaultNamespace[] = "kelbus";

// Parses mqtt://[user[:password]@]host[:port][/namespace] or local:.  On
// failure returns nothing and stores the reason in `*why`.
std::optional<BusAddress> ParseBusUrl(const std::string& url, std::string* why);

// `url` with any user and password between "://" and "@" left out, for
// messages about a URL that could not be parsed.
std::string WithoutCredentials(const std::string& url);

// KELBUS_URL, or the default when it is unset or empty.
std::string BusUrlFromEnvironment();

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSADDRESS_H_
