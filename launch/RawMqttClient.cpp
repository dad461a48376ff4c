#include "RawMqttClient.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <utility>

#include <KelMsgFeaMessaging/KelBus.h>

namespace {

constexpr auto kConnectLimit = std::chrono::seconds(KELBUS_CONNECT_SECONDS);

struct Library {
  Library() { mosquitto_lib_init(); }
  ~Library() { mosquitto_lib_cleanup(); }
};

}  // namespace

RawMqttClient::RawMqttClient(int port, OnMessage onMessage)
    : RawMqttClient(port, std::move(onMessage), Identity()) {}

RawMqttClient::RawMqttClient(int port, OnMessage onMessage, const Identity& identity)
    : m_onMessage(std::move(onMessage)) {
  static Library library;
  m_client = mosquitto_new(identity.clientId.empty() ? nullptr : identity.clientId.c_str(),
                           !identity.resumeSession, this);
  if (m_client == nullptr)
    return;
  if (!identity.user.empty())
    mosquitto_username_pw_set(m_client, identity.user.c_str(), identity.password.c_str());
  if (!identity.caFile.empty() &&
      mosquitto_tls_set(m_client, identity.caFile.c_str(), nullptr, nullptr, nullptr, nullptr) !=
          MOSQ_ERR_SUCCESS) {
    return;
  }
  mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_int_option(m_client, MOSQ_OPT_TCP_NODELAY, 1);
  mosquitto_connect_v5_callback_set(m_client, &RawMqttClient::OnConnect);
  mosquitto_subscribe_v5_callback_set(m_client, &RawMqttClient::OnSubscribe);
  mosquitto_publish_v5_callback_set(m_client, &RawMqttClient::OnPublish);
  mosquitto_message_v5_callback_set(m_client, &RawMqttClient::OnArrival);
  if (mosquitto_connect(m_client, "127.0.0.1", port, KELBUS_KEEPALIVE_SECONDS) !=
          MOSQ_ERR_SUCCESS ||
      mosquitto_loop_start(m_client) != MOSQ_ERR_SUCCESS) {
    return;
  }
  std::unique_lock lock(m_mutex);
  m_changed.wait_for(lock, kConnectLimit, [this] { return m_connected; });
}

RawMqttClient::~RawMqttClient() {
  if (m_client == nullptr)
    return;
  mosquitto_disconnect(m_client);
  mosquitto_loop_stop(m_client, false);
  mosquitto_destroy(m_client);
}

bool RawMqttClient::Subscribe(const std::string& topic) {
  std::unique_lock lock(m_mutex);
  int mid = 0;
  if (mosquitto_subscribe_v5(m_client, &mid, topic.c_str(), 1, 0, nullptr) != MOSQ_ERR_SUCCESS)
    return false;
  return m_changed.wait_for(lock, kConnectLimit,
                            [&] { return m_grantedSubscriptions.count(mid) != 0; });
}

bool RawMqttClient::Publish(const std::string& topic, const void* bytes, int size,
                            const std::string& contentType) {
  return Send(topic, bytes, size, contentType, false) != 0;
}

bool RawMqttClient::PublishAccepted(const std::string& topic, const std::string& payload,
                                    const std::string& contentType, bool retained) {
  const int mid =
      Send(topic, payload.data(), static_cast<int>(payload.size()), contentType, retained);
  if (mid == 0 || !Flush(kConnectLimit))
    return false;
  std::lock_guard lock(m_mutex);
  return !m_refused.contains(mid);
}

int RawMqttClient::Send(const std::string& topic, const void* bytes, int size,
                        const std::string& contentType, bool retained) {
  const std::size_t cost = static_cast<std::size_t>(size) + topic.size();
  {
    std::unique_lock lock(m_mutex);
    // One message larger than the window goes alone, as the bus lets it.
    m_changed.wait(lock, [&] {
      return !m_connected || m_unacknowledged.empty() ||
             m_unacknowledgedBytes + cost <= KELBUS_SEND_WINDOW_BYTES;
    });
    if (!m_connected)
      return 0;
  }
  mosquitto_property* properties = nullptr;
  if (!contentType.empty())
    mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, contentType.c_str());
  int mid = 0;
  // Not under the mutex: the network thread holds libmosquitto's locks while
  // it waits for ours in OnPublish.
  const int result =
      mosquitto_publish_v5(m_client, &mid, topic.c_str(), size, bytes, 1, retained, properties);
  mosquitto_property_free_all(&properties);
  if (result != MOSQ_ERR_SUCCESS)
    return 0;
  std::lock_guard lock(m_mutex);
  // The acknowledgement may have come first.
  if (m_earlyAcknowledgements.erase(mid) == 0) {
    m_unacknowledged[mid] = cost;
    m_unacknowledgedBytes += cost;
  }
  return mid;
}

bool RawMqttClient::Flush(std::chrono::milliseconds limit) {
  std::unique_lock lock(m_mutex);
  return m_changed.wait_for(lock, limit, [this] { return m_unacknowledged.empty(); });
}

void RawMqttClient::OnConnect(mosquitto*, void* self, int result, int /*flags*/,
                              const mosquitto_property* /*properties*/) {
  auto* client = static_cast<RawMqttClient*>(self);
  std::lock_guard lock(client->m_mutex);
  client->m_connected = result == 0;
  client->m_changed.notify_all();
}

void RawMqttClient::OnSubscribe(mosquitto*, void* self, int mid, int /*count*/,
                                const int* /*granted*/, const mosquitto_property* /*properties*/) {
  auto* client = static_cast<RawMqttClient*>(self);
  std::lock_guard lock(client->m_mutex);
  client->m_grantedSubscriptions.insert(mid);
  client->m_changed.notify_all();
}

void RawMqttClient::OnPublish(mosquitto*, void* self, int mid, int reason,
                              const mosquitto_property* /*properties*/) {
  auto* client = static_cast<RawMqttClient*>(self);
  std::lock_guard lock(client->m_mutex);
  if (reason >= MQTT_RC_UNSPECIFIED)
    client->m_refused.insert(mid);
  const auto sent = client->m_unacknowledged.find(mid);
  if (sent == client->m_unacknowledged.end()) {
    client->m_earlyAcknowledgements.insert(mid);
    return;
  }
  client->m_unacknowledgedBytes -= sent->second;
  client->m_unacknowledged.erase(sent);
  client->m_changed.notify_all();
}

void RawMqttClient::OnArrival(mosquitto*, void* self, const mosquitto_message* message,
                              const mosquitto_property* /*properties*/) {
  auto* client = static_cast<RawMqttClient*>(self);
  if (client->m_onMessage)
    client->m_onMessage(message->topic, static_cast<const char*>(message->payload),
                        message->payloadlen);
}
