// The allocators every object of the library is made with.
//
// All three throw std::bad_alloc when memory cannot be had and never return
// null.  Memory from any of them is released with mem_Free, which accepts null.
#ifndef KELMSGFEAMESSAGING_MEM_OPERATORS_H_
#define KELMSGFEAMESSAGING_MEM_OPERATORS_H_

#include <cstddef>

// Objects: messages, handlers, tree nodes and handles.
void* mem_OperatorNewThrow(std::size_t size);
// Small counters, such as the count cells of shared tree nodes.
void* mem_OperatorNewTinyThrow(std::size_t size);
// Plain byte arrays: identifiers, payload copies, chunk buffers.
void* mem_OperatorNewThrowBuiltin(std::size_t size);
void mem_Free(void* memory) noexcept;

#endif  // KELMSGFEAMESSAGING_MEM_OPERATORS_H_
