#include "Transport.h"

namespace kelbus {

std::unique_ptr<Transport> OpenTransport(const BusAddress& address, const std::string& label,
                                         const Inbox& inbox, KelBusResult* result) {
  switch (address.kind) {
    case BusAddress::Kind::kLocal:
      *result = KELBUS_OK;
      return OpenLocalTransport(inbox);
    case BusAddress::Kind::kMqtts:
      return OpenMqttsTransport(address, label, inbox, result);
    case BusAddress::Kind::kMqtt:
      break;
  }
  return OpenMqttTransport(address, label, inbox, result);
}

}  // namespace kelbus
