#include <KelMsgFeaMessaging/KelMsgBBCallbackManager.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include <KelMsgFeaMessaging/KelBus.h>

#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelMsgBBMessage.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/cow_BtreeIterator.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

#include "KelMsgCheck.h"
#include "KelMsgPayloadReader.h"
#include "KelMsgPayloadWriter.h"

namespace {

constexpr int kCountBytes = 4;

static_assert(sizeof(std::int32_t) == kCountBytes);

struct MemFree {
  void operator()(void* memory) const noexcept { mem_Free(memory); }
};
using IdentifierBytes = std::unique_ptr<char, MemFree>;
using ReceivedMessage = std::unique_ptr<KelMsgBBMessage>;

// The identifier handed to a handler: the envelope's n bytes and a NUL, in
// memory the library's allocator owns.
IdentifierBytes CopyIdentifier(const char* bytes, int n) {
  IdentifierBytes id(
      static_cast<char*>(mem_OperatorNewThrowBuiltin(static_cast<std::size_t>(n) + 1)));
  std::memcpy(id.get(), bytes, static_cast<std::size_t>(n));
  id.get()[n] = '\0';
  return id;
}

// A name another process chose, fit for a one-line report.
std::string Printable(const char* bytes, std::size_t n) {
  std::string text(bytes, n);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == '\x7F')
      c = '?';
  }
  return text;
}

// Whether the identifier in the envelope names the application that the bus
// vouches sent the message (if it vouches for any); reports a mismatch.
bool ClaimsItsSender(const char* type, const char* id, std::size_t n) {
  const char* sender = KelBusMessageSender();
  if (sender == nullptr || (std::strlen(sender) == n && std::memcmp(sender, id, n) == 0))
    return true;
  const std::string report = "message of type " + Printable(type, std::strlen(type)) +
                             " claims to come from '" + Printable(id, n) + "' but '" +
                             Printable(sender, std::strlen(sender)) + "' sent it; refused";
  return KelMsgPeerCheckFailed(report.c_str(), DOV_SOURCE_PATH, __LINE__);
}

template <class V>
void DeleteValuesAndClear(cow_Btree<cow_String, V*>& map) {
  cow_BtreeIterator<cow_String, V*> entry(map);
  for (entry.First(); !entry.AtEnd(); entry.Next())
    delete entry.Value();
  map.Clear();
}

}  // namespace

// Constructed in this order when the library is loaded, destroyed in reverse.
cow_Btree<cow_String, KelMsgBBMessage*> KelMsgBBCallbackManager::m_protos;
cow_Btree<cow_String, KelMsgBBMessageHandler*> KelMsgBBCallbackManager::m_handlers;
KelString KelMsgBBCallbackManager::m_messageID("");
const KelMsgBBMessage* KelMsgBBCallbackManager::m_messageToSend = nullptr;
const KelMsgBBDisconnectHandler* KelMsgBBCallbackManager::m_disconnectHandler = nullptr;

KelMsgBBCallbackManager::~KelMsgBBCallbackManager() {
  DeleteValuesAndClear(m_protos);
  DeleteValuesAndClear(m_handlers);
}

void KelMsgBBCallbackManager::AdoptPrototypeAndHandler(KelMsgBBMessage* proto,
                                                       KelMsgBBMessageHandler* handler) {
  KELMSG_ASSERT(proto != NULL);
  const cow_String type(proto->Type());
  KELMSG_ASSERT(!m_protos.IsMember(type));
  KELMSG_ASSERT(!m_handlers.IsMember(type));
  m_protos.InsertUnlessMember(type, proto);
  m_handlers.InsertUnlessMember(type, handler);
}

bool KelMsgBBCallbackManager::IsMessageTypeHandled(const char* typeName) {
  const cow_String type(typeName);
  return m_protos.IsMember(type) && m_handlers.IsMember(type);
}

void KelMsgBBCallbackManager::SetMessageID(const char* id) {
  m_messageID.BuildFromUTF8(id);
}

void KelMsgBBCallbackManager::AppendMessageToSend(const KelMsgBBMessage* msg) {
  m_messageToSend = msg;
}

void KelMsgBBCallbackManager::AssociateDisconnectHandler(const KelMsgBBDisconnectHandler* handler) {
  m_disconnectHandler = handler;
}

const char* KelMsgBBCallbackManager::TypeOfPendingMessage() {
  KELMSG_ASSERT(m_messageToSend != 0);
  return m_messageToSend->Type();
}

int KelMsgBBCallbackManager::RequiredBufferSizeOfPendingMessage() {
  const int n = m_messageID.GetLengthInByte();
  KELMSG_ASSERT(m_messageToSend != 0);
  const std::int64_t bufferSize =
      std::int64_t{n} + m_messageToSend->RequiredBufferSize() + kCountBytes;
  KELMSG_ASSERT(bufferSize <= INT_MAX);
  return static_cast<int>(bufferSize);
}

void KelMsgBBCallbackManager::StreamPendingMessage(void* buffer, int size) {
  const int n = m_messageID.GetLengthInByte();
  KELMSG_ASSERT(size >= kCountBytes + n);
  KelMsgPayloadWriter envelope(buffer, 0);
  envelope.WriteCountedString(m_messageID);
  KELMSG_ASSERT(m_messageToSend != 0);
  m_messageToSend->Stream(static_cast<char*>(buffer) + envelope.Offset(), size - envelope.Offset());
}

void KelMsgBBCallbackManager::HandleMessage(const char* typeName, const void* buffer, int size) {
  // One key serves every lookup of this dispatch.
  const cow_String type(typeName);
  if (!KELMSG_PEER_CHECK(m_protos.IsMember(type)))
    return;
  if (!KELMSG_PEER_CHECK(m_handlers.IsMember(type)))
    return;
  KelMsgBBMessage* const* protoEntry = m_protos.ConstFind(type);
  const KelMsgBBMessage* proto = protoEntry != nullptr ? *protoEntry : nullptr;
  KELMSG_ASSERT(proto != NULL);

  // The envelope comes from another process: take nothing from it that lies
  // outside the buffer.  Its identifier is checked here, before the reader
  // would, so that a damaged envelope is reported as the envelope's.
  if (!KELMSG_PEER_CHECK(size >= 4))
    return;
  KelMsgPayloadReader envelope(buffer, size);
  const std::int32_t n = envelope.ReadInt32();
  if (!KELMSG_PEER_CHECK(n >= 0 && n <= size - 4))
    return;

  const char* claimed = envelope.ReadBytes(n);
  if (!ClaimsItsSender(typeName, claimed, static_cast<std::size_t>(n)))
    return;
  const ReceivedMessage clone(proto->Clone());
  const IdentifierBytes id = CopyIdentifier(claimed, n);
  KelMsgBBMessage* msg = clone.get();
  KELMSG_ASSERT(msg != NULL);

  const int payloadSize = size - envelope.Offset();
  const char* payload = envelope.ReadBytes(payloadSize);
  KelMsgClearRefusal();
  msg->Unstream(payload, payloadSize);
  if (KelMsgWasRefused())
    return;

  KelMsgBBMessageHandler* const* handlerEntry = m_handlers.Find(type);
  KelMsgBBMessageHandler* handler = handlerEntry != nullptr ? *handlerEntry : nullptr;
  KELMSG_ASSERT(handler != NULL);
  handler->HandleMessage(*msg, id.get());
}

void KelMsgBBCallbackManager::Disconnection(int pid, const char* app, const char* host,
                                            const char* user) {
  KELMSG_ASSERT(m_disconnectHandler != 0);
  m_disconnectHandler->DetectDisconnection(pid, app, host, user);
}

KelMsgBBMessageHandler* KelMsgBBCallbackManager::GetHandler(const char* typeName) {
  const cow_String type(typeName);
  KELMSG_ASSERT(m_protos.IsMember(type));
  KELMSG_ASSERT(m_handlers.IsMember(type));
  KelMsgBBMessageHandler* const* entry = m_handlers.Find(type);
  return entry != nullptr ? *entry : m_handlers.GetNullValue();
}
