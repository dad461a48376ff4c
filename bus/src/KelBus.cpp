// The functions of KelBus.h: argument checks and the waiting loops; the rest
// is the communicators' and their transports'.
#include <KelMsgFeaMessaging/KelBus.h>
#include <dlfcn.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "BusAddress.h"
#include "BusCredentials.h"
#include "BusState.h"
#include "Communicator.h"
#include "Diagnostics.h"
#include "DispatchQueue.h"
#include "LastError.h"
#include "Transport.h"

namespace kelbus {
namespace {

constexpr unsigned char kNoBytes[1] = {};

// The vouched sender of the message whose receive callback runs on this
// thread.  A callback that waits again dispatches other messages; their
// senders give way to this one's when the nested dispatch returns.
thread_local const std::optional<std::string>* t_sender = nullptr;

class SenderInScope {
 public:
  explicit SenderInScope(const std::optional<std::string>& sender)
      : m_outer(std::exchange(t_sender, &sender)) {}
  ~SenderInScope() { t_sender = m_outer; }
  SenderInScope(const SenderInScope&) = delete;
  SenderInScope& operator=(const SenderInScope&) = delete;

 private:
  const std::optional<std::string>* m_outer;
};

KelBusResult NoCommunicator(int id) {
  return Fail(KELBUS_ERR_BAD_ID, "no open communicator " + std::to_string(id));
}

// The broker configuration installed with this library, found from where the
// library was loaded (any address inside it tells), so that an installation
// moved elsewhere (a package under /usr, a private prefix) names its own copy.
std::string InstalledBrokerConfiguration() {
  Dl_info library{};
  if (dladdr(kNoBytes, &library) == 0 || library.dli_fname == nullptr)
    return "kelbus-mosquitto.conf";
  // The loader may have found it through a link to where it lies: /lib for
  // /usr/lib.
  std::error_code unresolved;
  std::filesystem::path file = std::filesystem::weakly_canonical(library.dli_fname, unresolved);
  if (unresolved)
    file = library.dli_fname;
  return (file.parent_path() / KELBUS_BROKER_CONFIG).lexically_normal().string();
}

void ReportUnusableBus(KelBusResult result, const BusAddress& address) {
  if (result == KELBUS_ERR_UNREACHABLE) {
    Diagnose("KelBus: no MQTT broker answers at " + address.Describe() + " (" + LastErrorText() +
             "); start one with 'mosquitto -c " + InstalledBrokerConfiguration() +
             "' or set KELBUS_URL to one that runs");
  } else {
    Diagnose("KelBus: cannot join the bus at " + address.Describe() + ": " + LastErrorText());
  }
}

void Dispatch(BusState& bus, const Delivery& delivery) {
  const std::shared_ptr<Communicator> communicator = bus.Find(delivery.communicator);
  if (!communicator)
    return;
  std::lock_guard oneAtATime(bus.CallbackMutex());
  if (const auto* message = std::get_if<ReceivedMessage>(&delivery.content)) {
    if (const KelBusReceiveCallback receive = communicator->Receiver()) {
      const unsigned char* bytes = message->bytes.empty() ? kNoBytes : message->bytes.data();
      const SenderInScope sender(message->sender);
      receive(message->type.c_str(), bytes, static_cast<int>(message->bytes.size()));
    }
    communicator->Consumed(*message);
  } else if (const auto* departure = std::get_if<Departure>(&delivery.content)) {
    if (const KelBusDisconnectCallback disconnect = communicator->DisconnectReceiver()) {
      disconnect(departure->pid, departure->app.c_str(), departure->host.c_str(),
                 departure->user.c_str());
    }
  }
}

// Dispatches the deliveries of `id` (or of every communicator) until
// `*watched` changes.
KelBusResult RunWaitingLoop(int id, int timeout, int* watched) {
  using Clock = DispatchQueue::Clock;
  if (watched == nullptr)
    return Fail(KELBUS_ERR_INVALID, "null watched value");
  BusState& bus = BusState::Current();
  const int start = *watched;
  const DispatchQueue::Deadline deadline =
      timeout < 0 ? DispatchQueue::Deadline() : Clock::now() + std::chrono::milliseconds(timeout);
  std::uint64_t wakesSeen = bus.Queue().Wakes();
  while (*watched == start) {
    bool lost = false;
    if (id != DispatchQueue::kAnyCommunicator) {
      const std::shared_ptr<Communicator> communicator = bus.Find(id);
      if (!communicator)
        return NoCommunicator(id);
      lost = communicator->NameLost();
    } else if (!bus.HasCommunicators()) {
      return Fail(KELBUS_ERR_BAD_ID, "this process has no open communicator");
    }
    Delivery delivery;
    switch (bus.Queue().Pop(id, lost ? Clock::now() : deadline, &wakesSeen, &delivery)) {
      case DispatchQueue::PopResult::kDelivered:
        Dispatch(bus, delivery);
        bus.Queue().Recycle(std::move(delivery));
        break;
      case DispatchQueue::PopResult::kTimedOut:
        if (lost) {
          return Fail(KELBUS_ERR_NAME_LOST, "the communicator's application was taken over");
        }
        return Fail(KELBUS_ERR_TIMEOUT, "the time limit passed");
      case DispatchQueue::PopResult::kWoken:
        break;
    }
  }
  return KELBUS_OK;
}

}  // namespace
}  // namespace kelbus

using kelbus::BusState;
using kelbus::Communicator;
using kelbus::Fail;

int RegisterCommunicator(const char* name, int* communicatorId) {
  kelbus::ClearLastError();
  if (communicatorId == nullptr)
    return Fail(KELBUS_ERR_INVALID, "null communicatorId");
  const std::string url = kelbus::BusUrlFromEnvironment();
  std::string why;
  auto address = kelbus::ParseBusUrl(url, &why);
  if (!address) {
    kelbus::Diagnose("KelBus: KELBUS_URL '" + kelbus::WithoutCredentials(url) + "' is malformed (" +
                     why +
                     "); expected mqtt[s]://[user[:password]@]host[:port][/namespace] or local:");
    return Fail(KELBUS_ERR_URL, "KELBUS_URL is malformed: " + why);
  }
  if (!kelbus::AddCredentialsFromEnvironment(&*address, &why)) {
    kelbus::Diagnose("KelBus: cannot join the bus at " + address->Describe() + ": " + why);
    return Fail(KELBUS_ERR_URL, why);
  }
  BusState& bus = BusState::Current();
  const int id = bus.NewId();
  KelBusResult result = KELBUS_OK;
  auto transport = kelbus::OpenTransport(*address, name != nullptr ? name : "",
                                         kelbus::Inbox(bus.Queue(), id), &result);
  if (!transport) {
    kelbus::ReportUnusableBus(result, *address);
    return result;
  }
  bus.Add(std::make_shared<Communicator>(id, std::move(transport)));
  *communicatorId = id;
  return KELBUS_OK;
}

int DeclareApplicationId(int communicatorId, const char* applicationId, int flag) {
  kelbus::ClearLastError();
  const auto communicator = BusState::Current().Find(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  return communicator->Declare(applicationId, flag);
}

int SendRequest(int communicatorId, const char* targetApplication, KelBusStreamCallback stream,
                KelBusSizeCallback size, KelBusTypeCallback type) {
  kelbus::ClearLastError();
  const auto communicator = BusState::Current().Find(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  return communicator->Send(targetApplication, stream, size, type);
}

int KelBusApplicationPresent(int communicatorId, const char* applicationId, int timeout,
                             int* present) {
  kelbus::ClearLastError();
  const auto communicator = BusState::Current().Find(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  return communicator->Present(applicationId, timeout, present);
}

int AssociateHandler(int communicatorId, const char*, KelBusReceiveCallback receive) {
  kelbus::ClearLastError();
  const auto communicator = BusState::Current().Find(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  communicator->SetReceiver(receive);
  return KELBUS_OK;
}

int AssociateDisconnectHandler(int communicatorId, const char*,
                               KelBusDisconnectCallback disconnect) {
  kelbus::ClearLastError();
  const auto communicator = BusState::Current().Find(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  return communicator->SetDisconnectReceiver(disconnect);
}

int BBSysLoopWait(int* watched, int timeout) {
  kelbus::ClearLastError();
  return kelbus::RunWaitingLoop(kelbus::DispatchQueue::kAnyCommunicator, timeout, watched);
}

int WaitingLoop(int communicatorId, int timeout, int* watched) {
  kelbus::ClearLastError();
  if (communicatorId == kelbus::DispatchQueue::kAnyCommunicator) {
    return kelbus::NoCommunicator(communicatorId);
  }
  return kelbus::RunWaitingLoop(communicatorId, timeout, watched);
}

int CloseCommunicator(int communicatorId) {
  kelbus::ClearLastError();
  BusState& bus = BusState::Current();
  const auto communicator = bus.Remove(communicatorId);
  if (!communicator)
    return kelbus::NoCommunicator(communicatorId);
  communicator->Close();
  bus.Queue().Discard(communicatorId);
  bus.Queue().Wake();
  return KELBUS_OK;
}

const char* KelBusMessageSender(void) {
  const std::optional<std::string>* sender = kelbus::t_sender;
  return sender != nullptr && sender->has_value() ? (*sender)->c_str() : nullptr;
}

const char* KelBusLastError(void) {
  return kelbus::LastErrorText();
}
