// The C heap behind the table of system calls: for memory blocks and large buffers, where lack of
// memory is a result code and not an exception. The containers of the library use the C++ heap.
#ifndef K9EREPL_PLATFORM_MEMORY_H
#define K9EREPL_PLATFORM_MEMORY_H

#include <cstddef>
#include <memory>

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// The alignment in bytes that the C heap has on every system. On 32-bit Windows that is less than
// the alignment of std::max_align_t, which besides depends there on the headers that were included
// before.
inline constexpr std::size_t kHeapAlignment = 2 * sizeof(void*);

// Returns `size` bytes that are not set, aligned to kHeapAlignment; null when there is no memory.
// Not null for 0 bytes. The caller gives them back with FreeMemory, from any thread.
inline void* AllocMemory(std::size_t size) {
    return TheSystemCalls().allocMemory(size);
}
// Null does nothing.
inline void FreeMemory(void* memory) {
    TheSystemCalls().freeMemory(memory);
}

// Frees with FreeMemory, for std::unique_ptr.
struct MemoryDeleter {
    void operator()(void* memory) const { FreeMemory(memory); }
};
// A buffer from AllocMemory that is freed with its owner; null when there is none.
using MemoryBuffer = std::unique_ptr<u8[], MemoryDeleter>;

// Returns a null buffer when there is no memory.
inline MemoryBuffer AllocBuffer(std::size_t size) {
    return MemoryBuffer(static_cast<u8*>(AllocMemory(size)));
}

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_MEMORY_H
