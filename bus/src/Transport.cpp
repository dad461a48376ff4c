#include "Transport.h"

#include <KelMsgFeaMessaging/KelBus.h>

#include "LocalTransport.h"
#include "MqttTransport.h"

namespace kelbus {

std::unique_ptr<Transport> OpenTransport(const BusAddress& address, const std::string& label,
                                         const Inbox& inbox, LocalHub& hub, int* result) {
  *result = KELBUS_OK;
  if (address.kind == BusAddress::Kind::kLocal) {
    return std::make_unique<LocalTransport>(hub, inbox);
  }
  auto transport = std::make_unique<MqttTransport>(address, inbox);
  *result = transport->Connect(label);
  if (*result != KELBUS_OK)
    return nullptr;
  return transport;
}

}  // namespace kelbus
