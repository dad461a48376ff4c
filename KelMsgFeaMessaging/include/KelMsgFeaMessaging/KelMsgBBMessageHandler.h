// KelMsgBBMessageHandler: the abstract base of every message handler.
//
// KelMsgBBCallbackManager::AdoptPrototypeAndHandler hands a handler to the
// registry, which deletes it.  Handler objects are made with
// mem_OperatorNewThrow and released with mem_Free.  The contract of
// HandleMessage below holds for every handler; a handler's own header adds
// only what is particular to it.
#ifndef KELMSGFEAMESSAGING_KELMSGBBMESSAGEHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGBBMESSAGEHANDLER_H_

#include <cstddef>

class KelMsgBBMessage;

class KelMsgBBMessageHandler {
 public:
  virtual ~KelMsgBBMessageHandler() = default;

  // Called by the registry once per received message of the type the handler
  // was adopted for, inside the bus's waiting loop on the thread that waits.
  // `msg` is a fresh clone of the type's prototype that has rebuilt itself
  // from the payload; `id` is the sender's message identifier (never null).
  // Both live only for the duration of the call: keep a Clone(), never the
  // reference.  The handler may send, and may wait in the bus's loop again.
  virtual void HandleMessage(const KelMsgBBMessage& msg, const char* id) = 0;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBMESSAGEHANDLER_H_
