#include "PresenceReader.h"

#include <mqtt_protocol.h>

#include <KelMsgFeaMessaging/KelBus.h>

#include <condition_variable>
#include <mutex>

#include "LastError.h"
#include "MqttLink.h"

namespace kelbus {
namespace {

class ProbeListener final : public MqttLink::Listener {
 public:
  explicit ProbeListener(std::uint64_t probeClaim) : m_probeClaim(probeClaim) {}

  void OnMessage(const mosquitto_message& message, const mosquitto_property*) override {
    auto record =
        ProcessRecord::Decode(message.payload, static_cast<std::size_t>(message.payloadlen));
    if (!record)
      return;
    std::lock_guard lock(m_mutex);
    if (record->kind != ProcessRecord::Kind::kProbe) {
      m_latest = std::move(record);
    } else if (record->claim == m_probeClaim) {
      m_probeSeen = true;
      m_changed.notify_all();
    }
  }

  void OnStateChanged() override {}

  // The record seen before the probe, or false on timeout.
  bool WaitForProbe(std::chrono::steady_clock::time_point deadline,
                    std::optional<ProcessRecord>* record) {
    std::unique_lock lock(m_mutex);
    if (!m_changed.wait_until(lock, deadline, [this] { return m_probeSeen; }))
      return false;
    *record = m_latest;
    return true;
  }

 private:
  const std::uint64_t m_probeClaim;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  std::optional<ProcessRecord> m_latest;
  bool m_probeSeen = false;
};

}  // namespace

PresenceReading ReadPresence(const BusAddress& address, const BusTopics& topics,
                             const std::string& app,
                             std::chrono::steady_clock::time_point deadline) {
  ProcessRecord probe;
  probe.kind = ProcessRecord::Kind::kProbe;
  probe.claim = RandomClaim();
  ProbeListener listener(probe.claim);
  MqttLink link(address, std::string(), listener);
  const std::string topic = topics.PresenceTopic(app);
  link.Subscribe(topic, MQTT_SUB_OPT_SEND_RETAIN_ALWAYS);
  PresenceReading reading{link.Open(deadline), std::nullopt};
  if (reading.result == KELBUS_OK)
    reading.result = link.Settle(deadline);
  if (reading.result != KELBUS_OK)
    return reading;
  const std::string payload = probe.Encode();
  reading.result =
      link.Publish(topic, payload.data(), static_cast<int>(payload.size()), nullptr, deadline);
  // A broker whose access rules keep this identity from the name refuses
  // the probe at once.
  if (reading.result == KELBUS_OK)
    reading.result = link.Settle(deadline);
  if (reading.result == KELBUS_OK && !listener.WaitForProbe(deadline, &reading.record)) {
    reading.result = Fail(KELBUS_ERR_TRANSPORT,
                          "the broker did not answer while reading who holds '" + app + "'");
  }
  link.Close(false);
  return reading;
}

}  // namespace kelbus
