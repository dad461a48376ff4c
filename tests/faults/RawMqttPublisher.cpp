#include "RawMqttPublisher.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <chrono>

namespace {

struct Library {
  Library() { mosquitto_lib_init(); }
  ~Library() { mosquitto_lib_cleanup(); }
};

void OnConnect(mosquitto* /*client*/, void* self, int result) {
  if (result == 0)
    *static_cast<bool*>(self) = true;
}

}  // namespace

RawMqttPublisher::RawMqttPublisher(int port) {
  static Library library;
  m_client = mosquitto_new(nullptr, true, this);
  if (m_client == nullptr)
    return;
  mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
  mosquitto_user_data_set(m_client, &m_connected);
  mosquitto_connect_callback_set(m_client, &OnConnect);
  if (mosquitto_connect(m_client, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS)
    return;
  LoopUntil(m_connected);
}

RawMqttPublisher::~RawMqttPublisher() {
  if (m_client == nullptr)
    return;
  if (m_connected)
    mosquitto_disconnect(m_client);
  mosquitto_destroy(m_client);
}

bool RawMqttPublisher::Publish(const std::string& nameSpace, const std::string& application,
                               const std::string& type, const std::string& payload) {
  if (!m_connected)
    return false;
  mosquitto_property* properties = nullptr;
  mosquitto_property_add_string(&properties, MQTT_PROP_CONTENT_TYPE, type.c_str());
  const std::string topic = nameSpace + "/a/" + application;
  int mid = 0;
  const int result =
      mosquitto_publish_v5(m_client, &mid, topic.c_str(), static_cast<int>(payload.size()),
                           payload.data(), 1, false, properties);
  mosquitto_property_free_all(&properties);
  if (result != MOSQ_ERR_SUCCESS)
    return false;

  struct Acknowledgement {
    int mid;
    bool done;
  } acknowledgement{mid, false};
  mosquitto_user_data_set(m_client, &acknowledgement);
  mosquitto_publish_callback_set(m_client, [](mosquitto*, void* data, int acknowledged) {
    auto* waited = static_cast<Acknowledgement*>(data);
    if (acknowledged == waited->mid)
      waited->done = true;
  });
  const bool acknowledged = LoopUntil(acknowledgement.done);
  mosquitto_user_data_set(m_client, &m_connected);
  return acknowledged;
}

bool RawMqttPublisher::LoopUntil(const bool& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (!done && std::chrono::steady_clock::now() < deadline) {
    if (mosquitto_loop(m_client, 100, 1) != MOSQ_ERR_SUCCESS)
      return false;
  }
  return done;
}
