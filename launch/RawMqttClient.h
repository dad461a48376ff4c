// A plain MQTT 5 client: libmosquitto without the bus.  The benchmarks
// measure their baselines with it; the security tests play a stranger with it.
//
// Built like the bus's own connections, so that the two compare fairly:
// MQTT 5, TCP_NODELAY, QoS 1, a network thread of its own, and a send window
// of KELBUS_SEND_WINDOW_BYTES of unacknowledged messages.
//
//   RawMqttClient client(port, [](const std::string& topic, const char* bytes, int size) {...});
//   client.Subscribe("suite/a/solver");
//   client.Publish("suite/a/monitor", bytes, size, "KelMsgStringType");
#ifndef KELMSG_LAUNCH_RAWMQTTCLIENT_H_
#define KELMSG_LAUNCH_RAWMQTTCLIENT_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

struct mosquitto;
struct mosquitto_message;
typedef struct mqtt5__property mosquitto_property;

class RawMqttClient {
 public:
  // Runs on the client's network thread for every message that arrives.
  using OnMessage = std::function<void(const std::string& topic, const char* bytes, int size)>;

  // Whom the client says it is; by default an anonymous client with an
  // identifier of the library's choice, in the clear.
  struct Identity {
    std::string clientId{}, user{}, password{};
    std::string caFile{};        // when set, TLS with the broker's certificate checked against it
    bool resumeSession = false;  // takes over what the broker keeps for `clientId`
  };

  // Connects to the broker on the loopback port `port`; Connected() tells
  // whether that worked within a few seconds.
  explicit RawMqttClient(int port, OnMessage onMessage = {});
  RawMqttClient(int port, OnMessage onMessage, const Identity& identity);
  ~RawMqttClient();
  RawMqttClient(const RawMqttClient&) = delete;
  RawMqttClient& operator=(const RawMqttClient&) = delete;

  bool Connected() const { return m_connected; }
  // Subscribes at QoS 1; true once the broker has granted it.
  bool Subscribe(const std::string& topic);
  // Publishes at QoS 1, with `contentType` as content type unless it is
  // empty; waits first while the send window is full.  The OnMessage
  // callback may publish only while the window has room: the network thread
  // that runs it is the one that empties the window.
  bool Publish(const std::string& topic, const void* bytes, int size,
               const std::string& contentType = "");
  // Publishes as Publish does, retained if asked, and waits for the
  // broker's answer: whether it took the message.
  bool PublishAccepted(const std::string& topic, const std::string& payload,
                       const std::string& contentType = "", bool retained = false);
  // Waits until the broker has acknowledged every message published.
  bool Flush(std::chrono::milliseconds limit);

 private:
  // The message identifier of the publication, 0 when it failed.
  int Send(const std::string& topic, const void* bytes, int size, const std::string& contentType,
           bool retained);
  static void OnConnect(mosquitto*, void* self, int result, int flags,
                        const mosquitto_property* properties);
  static void OnSubscribe(mosquitto*, void* self, int mid, int count, const int* granted,
                          const mosquitto_property* properties);
  static void OnPublish(mosquitto*, void* self, int mid, int reason,
                        const mosquitto_property* properties);
  static void OnArrival(mosquitto*, void* self, const mosquitto_message* message,
                        const mosquitto_property* properties);

  OnMessage m_onMessage;
  mosquitto* m_client = nullptr;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_connected = false;
  std::set<int> m_grantedSubscriptions;
  std::map<int, std::size_t> m_unacknowledged;  // message id -> bytes
  std::size_t m_unacknowledgedBytes = 0;
  std::set<int> m_earlyAcknowledgements;  // acknowledged before Publish recorded them
  std::set<int> m_refused;                // messages the broker refused
};

#endif  // KELMSG_LAUNCH_RAWMQTTCLIENT_H_
