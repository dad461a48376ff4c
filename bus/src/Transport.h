// The one interface between the bus's functions and a way of moving
// messages, and the factories of those that exist: MQTT through a broker,
// in the clear or over TLS, and an in-process loopback.  The functions of KelBus.h never know which
// one runs, and nothing outside a transport's own file names it.
//
// Unless said otherwise, operations are called on the caller's thread.
// Transports deliver what they receive through their Inbox, from any thread.
#ifndef KELBUS_SRC_TRANSPORT_H_
#define KELBUS_SRC_TRANSPORT_H_

#include <KelMsgFeaMessaging/KelBus.h>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "BusAddress.h"
#include "DispatchQueue.h"

namespace kelbus {

class Transport {
 public:
  virtual ~Transport() = default;

  // Becomes the holder of `app` (see DeclareApplicationId for `takeOver`).
  // Called at most once.
  virtual KelBusResult Claim(const std::string& app, bool takeOver) = 0;
  // Hands `size` bytes labelled `type` to the network for `target`.  The
  // communicator sends nothing once NameLost(); a send that races the loss
  // may still go.
  virtual KelBusResult Send(std::string_view target, const char* type, const void* bytes,
                            int size) = 0;
  // A waiting loop has dispatched `message` (or dropped it for want of a
  // callback); its sender may send more.  Called on the waiting thread.
  virtual void Consumed(const ReceivedMessage& message) = 0;
  // Whether a live process holds `app`, as its presence record says, in
  // `*present`; claims nothing.  Gives up at `deadline`.
  virtual KelBusResult Present(const std::string& app,
                               std::chrono::steady_clock::time_point deadline, bool* present) = 0;
  // Starts or stops the delivery of departure records to the inbox; records
  // that arrive while stopped are never delivered.
  virtual KelBusResult WatchDepartures(bool on) = 0;
  // Whether another communicator took the application over, for good.
  virtual bool NameLost() const = 0;
  // Leaves the bus in order: sends what is pending, publishes the departure
  // record.  Nothing is delivered afterwards.
  virtual void Close() = 0;
  // In the child of a fork: lets go of everything shared with the parent
  // (network sockets) without touching any lock; the object is never used
  // again.
  virtual void AbandonAfterFork() = 0;
};

// The bus through the MQTT broker at `address` over TLS (mqtts://), as
// OpenMqttTransport.
std::unique_ptr<Transport> OpenMqttsTransport(const BusAddress& address, const std::string& label,
                                              const Inbox& inbox, KelBusResult* result);

// The in-process bus (local:): reaches the communicators of this process
// that opened it too.
std::unique_ptr<Transport> OpenLocalTransport(const Inbox& inbox);

// The bus through the MQTT broker at `address`; waits until the broker has
// accepted the connection.  `label` names the connection on the broker.  On
// failure returns null and stores the result in `*result`.
std::unique_ptr<Transport> OpenMqttTransport(const BusAddress& address, const std::string& label,
                                             const Inbox& inbox, KelBusResult* result);

// The transport of `address`'s scheme, as one of the factories above.
std::unique_ptr<Transport> OpenTransport(const BusAddress& address, const std::string& label,
                                         const Inbox& inbox, KelBusResult* result);

}  // namespace kelbus

#endif  // KELBUS_SRC_TRANSPORT_H_
