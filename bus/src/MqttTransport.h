// The bus over an MQTT 5 broker (see KelBus.h for the mapping).
//
// A communicator starts on a link under a client identifier of its own.
// Claiming an application opens a second link under the application's
// client identifier, with the departure record as will and the presence
// record as birth message, and retires the first link once everything sent
// on it has reached the broker, so that order holds across the switch.
#ifndef KELBUS_SRC_MQTTTRANSPORT_H_
#define KELBUS_SRC_MQTTTRANSPORT_H_

#include <mosquitto.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "BusAddress.h"
#include "BusTopics.h"
#include "MqttLink.h"
#include "ProcessRecord.h"
#include "Transport.h"

namespace kelbus {

class MqttTransport final : public Transport, public MqttLink::Listener {
 public:
  MqttTransport(const BusAddress& address, const Inbox& inbox);
  ~MqttTransport() override;

  // Opens the communicator's first link; `label` goes into its client
  // identifier.
  int Connect(const std::string& label);

  int Claim(const std::string& app, bool takeOver) override;
  int Send(std::string_view target, const char* type, const void* bytes, int size) override;
  int WatchDepartures(bool on) override;
  int Health() const override;
  void Close() override;
  void AbandonAfterFork() override;

 private:
  struct PropertiesDeleter {
    void operator()(mosquitto_property* properties) const;
  };
  using Properties = std::unique_ptr<mosquitto_property, PropertiesDeleter>;

  // MqttLink::Listener, on the links' threads.
  void OnMessage(const mosquitto_message& message, const mosquitto_property* properties) override;
  void OnStateChanged() override;

  std::unique_ptr<MqttLink> NewHolderLink(const ProcessRecord& presence);
  // The reconnect guard of the holder's link.
  MqttLink::Verdict CheckNameStillOurs(const std::string& app, std::uint64_t claim) const;
  // Sets the content type for `type` unless it is the last one used.
  int PrepareType(const char* type);
  void Report(const ProcessRecord& departure);

  const BusAddress m_address;
  const BusTopics m_topics;
  const Inbox m_inbox;
  const ProcessRecord m_process;
  std::atomic<bool> m_watching{false};

  // Serialises the operations that use the link (claim, send, watch, close).
  std::mutex m_operationMutex;
  bool m_claimed = false;
  std::string m_lastTarget, m_targetTopic;
  std::string m_lastType;
  bool m_typePrepared = false;
  Properties m_typeProperties;  // null for the empty type name

  // Guards the pointer, which a claim replaces, for Health.
  mutable std::mutex m_linkMutex;
  std::unique_ptr<MqttLink> m_link;

  // A departure may arrive on both links while a claim switches them.
  std::mutex m_reportsMutex;
  std::array<std::pair<std::uint64_t, std::chrono::steady_clock::time_point>, 16> m_recentReports{};
  std::size_t m_nextReport = 0;
};

}  // namespace kelbus

#endif  // KELBUS_SRC_MQTTTRANSPORT_H_
