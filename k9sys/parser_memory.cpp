// Parser memory: small blocks from the C heap, counted, with a limit that a host or a test may
// set. Each block is preceded by its size.
#include <k9sys/k9sys.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

// Keeps the memory behind it aligned for any type.
struct alignas(std::max_align_t) BlockHead {
    std::size_t size;
};

std::atomic<std::size_t> g_bytesInUse{0};
std::atomic<std::size_t> g_bytesAllowed{SIZE_MAX};

bool Reserve(std::size_t size) {
    std::size_t used = g_bytesInUse.load(std::memory_order_relaxed);
    do {
        const std::size_t allowed = g_bytesAllowed.load(std::memory_order_relaxed);
        if (used > allowed || size > allowed - used) {
            return false;
        }
    } while (!g_bytesInUse.compare_exchange_weak(used, used + size, std::memory_order_relaxed));
    return true;
}

void Unreserve(std::size_t size) {
    g_bytesInUse.fetch_sub(size, std::memory_order_relaxed);
}

}  // namespace

void* K9SysParserMemAlloc(size_t size) {
    if (size > SIZE_MAX - sizeof(BlockHead) || !Reserve(size)) {
        return nullptr;
    }
    auto* const head = static_cast<BlockHead*>(std::malloc(sizeof(BlockHead) + size));
    if (head == nullptr) {
        Unreserve(size);
        return nullptr;
    }
    head->size = size;
    return head + 1;
}

void K9SysParserMemFree(void* memory) {
    if (memory == nullptr) {
        return;
    }
    BlockHead* const head = static_cast<BlockHead*>(memory) - 1;
    Unreserve(head->size);
    std::free(head);
}

void K9SysSetParserMemLimit(size_t bytes) {
    g_bytesAllowed.store(bytes, std::memory_order_relaxed);
}

size_t K9SysParserMemInUse(void) {
    return g_bytesInUse.load(std::memory_order_relaxed);
}
