#include <KelMsgFeaMessaging/mem_Operators.h>

#include <cstdlib>
#include <new>

namespace {
void* AllocateOrThrow(std::size_t size) {
  // malloc(0) may return null; one byte keeps "never null" true.
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr)
    throw std::bad_alloc();
  return memory;
}
}  // namespace

void* mem_OperatorNewThrow(std::size_t size) {
  return AllocateOrThrow(size);
}
void* mem_OperatorNewTinyThrow(std::size_t size) {
  return AllocateOrThrow(size);
}
void* mem_OperatorNewThrowBuiltin(std::size_t size) {
  return AllocateOrThrow(size);
}
void mem_Free(void* memory) noexcept {
  std::free(memory);
}
