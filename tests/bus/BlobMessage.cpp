#include "BlobMessage.h"

#include <cstring>

#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

BlobMessage::BlobMessage(const std::string& type, std::string bytes)
    : KelMsgBBMessage(KelString(type.data(), static_cast<int>(type.size()))),
      m_bytes(std::move(bytes)) {}

int BlobMessage::RequiredBufferSize() const {
  return static_cast<int>(m_bytes.size());
}

void BlobMessage::Stream(void* buffer, int /*size*/) const {
  std::memcpy(buffer, m_bytes.data(), m_bytes.size());
}

void BlobMessage::Unstream(const void* buffer, int size) {
  m_bytes.assign(static_cast<const char*>(buffer), static_cast<std::size_t>(size));
}

KelMsgBBMessage* BlobMessage::Clone() const {
  return new BlobMessage(Type());
}

void BlobHandler::HandleMessage(const KelMsgBBMessage& msg, const char* id) {
  m_reaction(static_cast<const BlobMessage&>(msg), id);
}

void HandleBlobs(const std::string& type, BlobHandler::Reaction reaction) {
  KelMsgBBCallbackManager::AdoptPrototypeAndHandler(new BlobMessage(type),
                                                    new BlobHandler(std::move(reaction)));
}
