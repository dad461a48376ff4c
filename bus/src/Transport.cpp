#include "Transport.h"

namespace kelbus {

std::unique_ptr<Transport> OpenTransport(const BusAddress& address, const std::string& label,
                                         const Inbox& inbox, KelBusResult* result) {
  if (address.kind == BusAddress::Kind::kLocal) {
    *result = KELBUS_OK;
    return OpenLocalTransport(inbox);
  }
  return OpenMqttTransport(address, label, inbox, result);
}

}  // namespace kelbus
