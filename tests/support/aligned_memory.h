// Memory with an alignment of its own from the C heap, which each system offers in its own way. For
// the replaced operators new (new_fault.cpp).
#ifndef K9EREPL_TESTS_SUPPORT_ALIGNED_MEMORY_H
#define K9EREPL_TESTS_SUPPORT_ALIGNED_MEMORY_H

#include <cstddef>

namespace k9erepl::test {

// Null when there is none. REQUIRES: `alignment` is a power of 2, and `size` a multiple of it.
void* AllocAligned(std::size_t size, std::size_t alignment);
// `memory` is from AllocAligned, or null.
void FreeAligned(void* memory);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_ALIGNED_MEMORY_H
