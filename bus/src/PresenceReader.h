// Reads the retained presence record of one application through a
// short-lived connection of its own.
#ifndef KELBUS_SRC_PRESENCEREADER_H_
#define KELBUS_SRC_PRESENCEREADER_H_

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <optional>
#include <string>

#include "BusAddress.h"
#include "BusTopics.h"
#include "ProcessRecord.h"

namespace kelbus {

struct PresenceReading {
  KelBusResult result;
  std::optional<ProcessRecord> record;  // none: nobody ever held the name
};

// Subscribes to `app`'s presence topic, then publishes a probe record there:
// the broker sends the retained record before the probe comes back, so the
// last record seen before the probe is the current one.
PresenceReading ReadPresence(const BusAddress& address, const BusTopics& topics,
                             const std::string& app,
                             std::chrono::steady_clock::time_point deadline);

}  // namespace kelbus

#endif  // KELBUS_SRC_PRESENCEREADER_H_
