// Aligned memory: one call of the C library.
#include "support/aligned_memory.h"

#include <cstdlib>

namespace k9erepl::test {

void* AllocAligned(std::size_t size, std::size_t alignment) {
    return std::aligned_alloc(alignment, size);
}

void FreeAligned(void* memory) {
    std::free(memory);
}

}  // namespace k9erepl::test
