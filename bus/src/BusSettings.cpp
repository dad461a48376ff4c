#include "BusSettings.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Diagnostics.h"

namespace kelbus {
namespace {

// The largest interval MQTT carries; it fits in a signed 64-bit count too.
constexpr long long kLongestInterval = 0xFFFFFFFELL;
// libmosquitto refuses a shorter keepalive; MQTT carries no longer one.
constexpr long long kShortestKeepalive = 5;
constexpr long long kLongestKeepalive = 0xFFFF;

void Override(const char* variable, std::chrono::seconds* value, long long least = 0,
              long long most = kLongestInterval) {
  const char* text = std::getenv(variable);
  if (text == nullptr || text[0] == '\0')
    return;
  long long seconds = -1;
  const char* end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, seconds);
  if (error != std::errc() || stop != end || seconds < least || seconds > most) {
    Diagnose(std::string("KelBus: ") + variable + " '" + text +
             "' is not a number of seconds from " + std::to_string(least) + " to " +
             std::to_string(most) + "; using " + std::to_string(value->count()));
    return;
  }
  *value = std::chrono::seconds(seconds);
}

}  // namespace

BusSettings BusSettingsFromEnvironment() {
  BusSettings settings;
  Override("KELBUS_SESSION_EXPIRY_SECONDS", &settings.sessionExpiry);
  Override("KELBUS_DEPARTURE_DELAY_SECONDS", &settings.departureDelay);
  Override("KELBUS_DEPARTURE_EXPIRY_SECONDS", &settings.departureExpiry);
  Override("KELBUS_SEND_TIMEOUT_SECONDS", &settings.sendTimeout);
  Override("KELBUS_KEEPALIVE_SECONDS", &settings.keepalive, kShortestKeepalive, kLongestKeepalive);
  return settings;
}

}  // namespace kelbus
