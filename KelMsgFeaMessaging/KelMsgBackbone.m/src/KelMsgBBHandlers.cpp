// Handlers live on the library's allocator like messages, so a handler
// adopted by the registry is released by the same routine that made it.
#include <KelMsgFeaMessaging/KelMsgBBDisconnectHandler.h>
#include <KelMsgFeaMessaging/KelMsgBBMessageHandler.h>
#include <KelMsgFeaMessaging/mem_Operators.h>

void* KelMsgBBMessageHandler::operator new(std::size_t size) {
  return mem_OperatorNewThrow(size);
}

void KelMsgBBMessageHandler::operator delete(void* memory) noexcept {
  mem_Free(memory);
}

void* KelMsgBBDisconnectHandler::operator new(std::size_t size) {
  return mem_OperatorNewThrow(size);
}

void KelMsgBBDisconnectHandler::operator delete(void* memory) noexcept {
  mem_Free(memory);
}
