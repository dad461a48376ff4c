// A plain MQTT 5 client, libmosquitto without the bus, that publishes
// whatever bytes a test chooses to an application's topic: what a foreign or
// broken process could put on the bus.
#ifndef KELMSG_TESTS_FAULTS_RAWMQTTPUBLISHER_H_
#define KELMSG_TESTS_FAULTS_RAWMQTTPUBLISHER_H_

#include <string>

struct mosquitto;

class RawMqttPublisher {
 public:
  // Connects to the broker on the loopback port `port`.
  explicit RawMqttPublisher(int port);
  ~RawMqttPublisher();
  RawMqttPublisher(const RawMqttPublisher&) = delete;
  RawMqttPublisher& operator=(const RawMqttPublisher&) = delete;

  bool Connected() const { return m_connected; }
  // Publishes `payload` at QoS 1 to the topic of `application` in
  // `nameSpace` (the application name must be letters and digits), with
  // `type` as the content type; true once the broker has acknowledged it.
  bool Publish(const std::string& nameSpace, const std::string& application,
               const std::string& type, const std::string& payload);

 private:
  // Runs the client's network loop until `done` is set or a few seconds pass.
  bool LoopUntil(const bool& done);

  mosquitto* m_client = nullptr;
  bool m_connected = false;
};

#endif  // KELMSG_TESTS_FAULTS_RAWMQTTPUBLISHER_H_
