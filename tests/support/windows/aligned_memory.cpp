// Aligned memory: one call of the C library.
#include "support/aligned_memory.h"

#include <malloc.h>

namespace k9erepl::test {

void* AllocAligned(std::size_t size, std::size_t alignment) {
    return _aligned_malloc(size, alignment);
}

void FreeAligned(void* memory) {
    _aligned_free(memory);
}

}  // namespace k9erepl::test
