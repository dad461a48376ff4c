// KelMsgBBDisconnectHandler: the abstract base of disconnect handlers.
#ifndef KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_
#define KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_

#include <cstddef>

class KelMsgBBDisconnectHandler {
 public:
  virtual ~KelMsgBBDisconnectHandler() = default;

  // Called inside the bus's disconnect callback with the process identifier,
  // application, host and user of the process that left, as the bus reported
  // them.
  virtual void DetectDisconnection(int pid, const char* app, const char* host,
                                   const char* user) const = 0;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;
};

#endif  // KELMSGFEAMESSAGING_KELMSGBBDISCONNECTHANDLER_H_
