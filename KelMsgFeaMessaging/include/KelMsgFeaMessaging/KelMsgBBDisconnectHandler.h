// KelMsgBBDisconnectHandler: the abstract base of disconnect handlers.
//
// KelMsgBBCallbackManager::AssociateDisconnectHandler only lends the handler
// to the registry: it stays the caller's, who keeps it alive while it is
// installed.  Handler objects are made with mem_OperatorNewThrow and released
// with mem_Free.  The contract of DetectDisconnection below holds for every
// disconnect handler; a handler's own header adds only what is particular to
// it.
#ifndef KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_

#include <cstddef>

class KelMsgBBDisconnectHandler {
 public:
  virtual ~KelMsgBBDisconnectHandler() = default;

  // Called inside the bus's disconnect callback, on the thread that runs the
  // bus, with the process identifier, application, host and user of the
  // process that left, as the bus reported them.
  virtual void DetectDisconnection(int pid, const char* app, const char* host,
                                   const char* user) const = 0;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_
