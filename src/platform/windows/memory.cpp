// The C heap.
#include <cstdlib>

#include "platform/native_calls.h"

namespace k9erepl::platform::native {

void* MemoryAlloc(std::size_t size) {
    return std::malloc(size == 0 ? 1 : size);
}

void MemoryFree(void* memory) {
    std::free(memory);
}

}  // namespace k9erepl::platform::native
