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

void Override(const char* variable, std::chrono::seconds* value) {
  const char* text = std::getenv(variable);
  if (text == nullptr || text[0] == '\0')
    return;
  long long seconds = -1;
  const char* end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, seconds);
  if (error != std::errc() || stop != end || seconds < 0 || seconds > kLongestInterval) {
    Diagnose(std::string("KelBus: ") + variable + " '" + text +
             "' is not a number of seconds; using " + std::to_string(value->count()));
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
  return settings;
}

}  // namespace kelbus
