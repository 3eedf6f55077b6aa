// The C heap behind the table of system calls: blocks and large buffers, whose exhaustion is a
// result code and no exception.
#ifndef K9EREPL_PLATFORM_MEMORY_H
#define K9EREPL_PLATFORM_MEMORY_H

#include <cstddef>
#include <memory>

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// What the C heap aligns to on every system. On 32-bit Windows that is less than the alignment of
// std::max_align_t, which besides depends there on the headers that were included before.
inline constexpr std::size_t kHeapAlignment = 2 * sizeof(void*);

// Null when there is no memory. The bytes are not set. Aligned to kHeapAlignment.
inline void* AllocMemory(std::size_t size) {
    return TheSystemCalls().allocMemory(size);
}
inline void FreeMemory(void* memory) {
    TheSystemCalls().freeMemory(memory);
}

struct MemoryDeleter {
    void operator()(void* memory) const { FreeMemory(memory); }
};
// A buffer from AllocMemory that is freed with its owner.
using MemoryBuffer = std::unique_ptr<u8[], MemoryDeleter>;

inline MemoryBuffer AllocBuffer(std::size_t size) {
    return MemoryBuffer(static_cast<u8*>(AllocMemory(size)));
}

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_MEMORY_H
