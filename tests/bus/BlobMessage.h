// A message of any type name whose payload is a run of bytes, and a handler
// that records what the registry hands it.
#ifndef KELMSG_TESTS_BUS_BLOBMESSAGE_H_
#define KELMSG_TESTS_BUS_BLOBMESSAGE_H_

#include <functional>
#include <string>

#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>

class BlobMessage : public KelMsgBBMessage {
 public:
  explicit BlobMessage(const std::string& type, std::string bytes = {});

  const std::string& Bytes() const { return m_bytes; }

  int RequiredBufferSize() const override;
  void Stream(void* buffer, int size) const override;
  void Unstream(const void* buffer, int size) override;
  KelMsgBBMessage* Clone() const override;

 private:
  std::string m_bytes;
};

// Calls a function with every message handed to it.
class BlobHandler : public KelMsgBBMessageHandler {
 public:
  using Reaction = std::function<void(const BlobMessage& message, const std::string& id)>;
  explicit BlobHandler(Reaction reaction) : m_reaction(std::move(reaction)) {}
  void HandleMessage(const KelMsgBBMessage& msg, const char* id) override;

 private:
  Reaction m_reaction;
};

// Adopts a BlobMessage prototype of `type` with a handler running `reaction`.
void HandleBlobs(const std::string& type, BlobHandler::Reaction reaction);

#endif  // KELMSG_TESTS_BUS_BLOBMESSAGE_H_
