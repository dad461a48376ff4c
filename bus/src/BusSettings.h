// The delivery settings that a process may tune through its environment
// (see KelBus.h), read when a communicator is registered.
#ifndef KELBUS_SRC_BUSSETTINGS_H_
#define KELBUS_SRC_BUSSETTINGS_H_

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>

namespace kelbus {

struct BusSettings {
  // How long the broker keeps what arrives for a link whose connection is
  // down (KELBUS_SESSION_EXPIRY_SECONDS).
  std::chrono::seconds sessionExpiry{600};
  // How long after a holder's connection breaks the broker publishes its
  // departure (KELBUS_DEPARTURE_DELAY_SECONDS).
  std::chrono::seconds departureDelay{30};
  // How long the broker keeps a departure record once published, 0 for ever
  // (KELBUS_DEPARTURE_EXPIRY_SECONDS).
  std::chrono::seconds departureExpiry{86400};
  // How long SendRequest blocks for room before it gives the message up
  // (KELBUS_SEND_TIMEOUT_SECONDS).
  std::chrono::seconds sendTimeout{300};
  // The MQTT keepalive of the communicator's connections
  // (KELBUS_KEEPALIVE_SECONDS).
  std::chrono::seconds keepalive{KELBUS_KEEPALIVE_SECONDS};
};

// The defaults above, overridden by the environment variables that hold a
// whole number of seconds (a keepalive of at least 5, as libmosquitto
// requires); a variable holding anything else is reported and left out.
BusSettings BusSettingsFromEnvironment();

}  // namespace kelbus

#endif  // KELBUS_SRC_BUSSETTINGS_H_
