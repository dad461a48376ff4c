// KelMsgBBCallbackManager: the process-wide registry of message prototypes and
// handlers, and the plain functions the bus calls back.
//
// For each type name the registry keeps one prototype and one handler, both
// owned by it from adoption on.  Sending: KelMsgBBAPI::SendRequest lends the
// message as the one pending message, and the bus asks for its type, size and
// envelope through the three sending callbacks.  Receiving: the bus hands a
// buffer to HandleMessage, which clones the type's prototype, lets the clone
// Unstream the payload, calls the handler with the clone and the sender's
// identifier, and then frees both.
//
// All state is static; an object has no data.  Destroying any object of the
// class deletes every adopted prototype and handler, so a client keeps one
// object for the life of the process.  Everything runs on the one thread
// that calls the bus; nothing here is locked.
#ifndef KELMSGFEAMESSAGING_KELMSGBBCALLBACKMANAGER_H_
#define KELMSGFEAMESSAGING_KELMSGBBCALLBACKMANAGER_H_

#include <KelMsgFeaMessaging/KelMsgBBMaps.h>
#include <KelMsgFeaMessaging/KelString.h>

class KelMsgBBMessage;
class KelMsgBBMessageHandler;
class KelMsgBBDisconnectHandler;

class KelMsgBBCallbackManager {
 public:
  KelMsgBBCallbackManager() = default;
  // Deletes every adopted prototype and handler (once each) and empties both
  // maps.  The identifier, the pending message and the disconnect handler are
  // left as they are.
  ~KelMsgBBCallbackManager();
  KelMsgBBCallbackManager(const KelMsgBBCallbackManager&) = delete;
  KelMsgBBCallbackManager& operator=(const KelMsgBBCallbackManager&) = delete;

  // Takes ownership of both and registers them under proto->Type().
  // Preconditions (the process ends otherwise): proto is not null, and the
  // type has neither a prototype nor a handler yet.  Each object is adopted
  // once, for one type.
  static void AdoptPrototypeAndHandler(KelMsgBBMessage* proto, KelMsgBBMessageHandler* handler);
  // True when the type has both a prototype and a handler.  Reports nothing.
  static bool IsMessageTypeHandled(const char* type);
  // The identifier written into the envelope of every message sent from now
  // on; by convention the process's own application identifier.
  static void SetMessageID(const char* id);
  // Lends the message to be sent; replaces any earlier one; copies nothing.
  static void AppendMessageToSend(const KelMsgBBMessage* msg);
  // Lends the one disconnect handler; the last call wins; deletes nothing.
  static void AssociateDisconnectHandler(const KelMsgBBDisconnectHandler* handler);

  // Sending-side bus callbacks, valid only inside KelMsgBBAPI::SendRequest.
  static const char* TypeOfPendingMessage();
  // Identifier bytes + payload size + 4.
  static int RequiredBufferSizeOfPendingMessage();
  // Writes the envelope and the pending message's payload into `buffer`,
  // which holds `size` >= RequiredBufferSizeOfPendingMessage() bytes.
  static void StreamPendingMessage(void* buffer, int size);

  // Receiving-side bus callback: dispatches `size` bytes of `buffer`, which
  // arrived under `type`.  What another process sent may be refused: an
  // unregistered type, a buffer too short for its envelope, or a payload the
  // message class cannot take is reported and dropped, without calling any
  // handler and without reading outside the buffer.
  static void HandleMessage(const char* type, const void* buffer, int size);
  // Disconnect callback: passes the report on to the installed handler, which
  // must exist.
  static void Disconnection(int pid, const char* app, const char* host, const char* user);

  // The handler registered for `type`, which must be registered.
  KelMsgBBMessageHandler* GetHandler(const char* type);

 private:
  static cow_Btree<cow_String, KelMsgBBMessage*> m_protos;
  static cow_Btree<cow_String, KelMsgBBMessageHandler*> m_handlers;
  static KelString m_messageID;
  static const KelMsgBBMessage* m_messageToSend;
  static const KelMsgBBDisconnectHandler* m_disconnectHandler;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBCALLBACKMANAGER_H_
