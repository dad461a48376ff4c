// The one interface between the bus's functions and a way of moving
// messages.  Two exist: MQTT through a broker, and an in-process loopback.
// The functions of KelBus.h never know which one runs.
//
// Unless said otherwise, operations are called on the caller's thread and
// return a KelBusResult.  Transports deliver what they receive through their
// Inbox, from any thread.
#ifndef KELBUS_SRC_TRANSPORT_H_
#define KELBUS_SRC_TRANSPORT_H_

#include <memory>
#include <string>
#include <string_view>

#include "BusAddress.h"
#include "DispatchQueue.h"

namespace kelbus {

class LocalHub;

class Transport {
 public:
  virtual ~Transport() = default;

  // Becomes the holder of `app` (see DeclareApplicationId for `takeOver`).
  // Called at most once.
  virtual int Claim(const std::string& app, bool takeOver) = 0;
  // Hands `size` bytes labelled `type` to the network for `target`.
  virtual int Send(std::string_view target, const char* type, const void* bytes, int size) = 0;
  // Starts or stops the delivery of departure records to the inbox.
  virtual int WatchDepartures(bool on) = 0;
  // KELBUS_OK, KELBUS_ERR_DISCONNECTED or KELBUS_ERR_NAME_LOST.
  virtual int Health() const = 0;
  // Leaves the bus in order: sends what is pending, publishes the departure
  // record.  Nothing is delivered afterwards.
  virtual void Close() = 0;
  // In the child of a fork: lets go of everything shared with the parent
  // (network sockets) without touching any lock; the object is never used
  // again.
  virtual void AbandonAfterFork() = 0;
};

// Connects a communicator to the bus at `address`.  `label` names it on the
// broker.  On failure returns null and stores the result in `*result`.
std::unique_ptr<Transport> OpenTransport(const BusAddress& address, const std::string& label,
                                         const Inbox& inbox, LocalHub& hub, int* result);

}  // namespace kelbus

#endif  // KELBUS_SRC_TRANSPORT_H_
