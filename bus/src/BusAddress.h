// Where the bus is: the parsed form of KELBUS_URL.
#ifndef KELBUS_SRC_BUSADDRESS_H_
#define KELBUS_SRC_BUSADDRESS_H_

#include <optional>
#include <string>

namespace kelbus {

// The files of a TLS connection; empty names are unset.
struct TlsFiles {
  std::string caFile;             // unset: the system's certificate store
  std::string certFile, keyFile;  // the client's certificate, both or neither
};

struct BusAddress {
  enum class Kind { kMqtt, kMqtts, kLocal };

  Kind kind = Kind::kMqtt;
  std::string host;
  int port = 0;
  std::string user;  // empty: connect anonymously
  std::string password;
  std::string nameSpace;
  TlsFiles tls;  // kMqtts only

  // The URL as it may be shown to people: the password is left out.
  std::string Describe() const;
};

inline constexpr char kDefaultBusUrl[] = "mqtt://127.0.0.1:1883";
inline constexpr int kDefaultMqttPort = 1883;
inline constexpr int kDefaultMqttsPort = 8883;
inline constexpr char kDefaultNamespace[] = "kelbus";

// Parses mqtt[s]://[user[:password]@]host[:port][/namespace] or local:.
// Anything else (another scheme, a query, a fragment) is refused.  On
// failure returns nothing and stores the reason, which never holds the
// password, in `*why`.
std::optional<BusAddress> ParseBusUrl(const std::string& url, std::string* why);

// `url` with everything before its last '@' but the scheme left out, for
// messages about a URL that could not be parsed: whatever it holds, no
// password shows.
std::string WithoutCredentials(const std::string& url);

// KELBUS_URL, or the default when it is unset or empty.
std::string BusUrlFromEnvironment();

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSADDRESS_H_
