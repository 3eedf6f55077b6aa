// The C heap behind the table of system calls: blocks and large buffers, whose exhaustion is a
// result code and no exception.
#ifndef K9EREPL_PLATFORM_MEMORY_H
#define K9EREPL_PLATFORM_MEMORY_H

#include <cstddef>
#include <memory>

#include "platform/int_types.h"
#include "platform/system_calls.h"

namespace k9erepl::platform {

// Null when there is no memory. The bytes are not set. Aligned for any fundamental type.
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
