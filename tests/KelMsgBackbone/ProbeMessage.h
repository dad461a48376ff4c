// A message and a handler that record what the registry does with them.
#ifndef KELMSG_TESTS_KELMSGBACKBONE_PROBEMESSAGE_H_
#define KELMSG_TESTS_KELMSGBACKBONE_PROBEMESSAGE_H_

#include <string>
#include <vector>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

struct ProbeLog {
  int clones = 0;
  int unstreams = 0;
  int destroyed = 0;
  int handled = 0;
  std::vector<std::string> ids;
  std::vector<std::string> payloads;             // as handed to Unstream
  std::vector<const KelMsgBBMessage*> received;  // messages handed to the handler
  int handlersDestroyed = 0;
};

// Payload: the bytes of `payload`.  A payload starting with '!' is refused
// the way a malformed payload from another process is.
class ProbeMessage : public KelMsgBBMessage {
 public:
  ProbeMessage(ProbeLog* log, const char* type = "ProbeMessage", std::string payload = {});
  ~ProbeMessage() override;

  int RequiredBufferSize() const override;
  void Stream(void* buffer, int size) const override;
  void Unstream(const void* buffer, int size) override;
  KelMsgBBMessage* Clone() const override;

  const std::string& Payload() const { return m_payload; }

 private:
  ProbeLog* m_log;
  std::string m_payload;
};

class ProbeHandler : public KelMsgBBMessageHandler {
 public:
  explicit ProbeHandler(ProbeLog* log) : m_log(log) {}
  ~ProbeHandler() override { ++m_log->handlersDestroyed; }
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  ProbeLog* m_log;
};

#endif  // KELMSG_TESTS_KELMSGBACKBONE_PROBEMESSAGE_H_
