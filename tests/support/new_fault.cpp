// The replaced global operators new and delete. Every form is replaced, so that each piece of
// memory comes from and returns to the C heap, whoever allocated it.
#include "support/new_fault.h"

#include <k9sys/k9sys.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <new>

namespace k9erepl::test {
namespace {

// The stand-in for the system library takes memory when it hears of a module for the first time.
// That happens here, for no test shall count on another one having logged before it. At the level
// that programs start with nothing is printed.
[[maybe_unused]] const bool g_modulesKnown = [] {
    for (const char* module : {"k9eRepl-storage", "k9eRepl-storage-idx", "***TP***"}) {
        trcheckEx_K9LogInfoEx_(module, "%s", "memory faults are tested");
    }
    return true;
}();

thread_local bool t_armed = false;
thread_local u64 t_callsLeft = 0;  // until the failure, while armed; 0 when it has struck
thread_local u64 t_calls = 0;
std::atomic<NewGate> g_gate{nullptr};

bool FailsNow() {
    ++t_calls;
    if (const NewGate gate = g_gate.load(std::memory_order_relaxed); gate != nullptr && gate()) {
        return true;
    }
    return t_armed && t_callsLeft != 0 && --t_callsLeft == 0;
}

void* AllocOrNull(std::size_t size) {
    return FailsNow() ? nullptr : std::malloc(size == 0 ? 1 : size);
}

// Aligned memory lies in a larger piece of the C heap, whose address stands before it.
void* AllocOrNull(std::size_t size, std::align_val_t alignment) {
    const std::size_t more = static_cast<std::size_t>(alignment) + sizeof(void*);
    std::size_t room = size + more;
    void* const piece = room < size ? nullptr : AllocOrNull(room);
    if (piece == nullptr) {
        return nullptr;
    }
    void* memory = static_cast<char*>(piece) + sizeof(void*);
    room -= sizeof(void*);
    std::align(static_cast<std::size_t>(alignment), size, memory, room);
    static_cast<void**>(memory)[-1] = piece;
    return memory;
}

void FreeAligned(void* memory) {
    if (memory != nullptr) {
        std::free(static_cast<void**>(memory)[-1]);
    }
}

template <typename... Alignment>
void* AllocOrThrow(std::size_t size, Alignment... alignment) {
    void* memory = AllocOrNull(size, alignment...);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

}  // namespace

FailNthNew::FailNthNew(u32 nth) {
    if (nth == 0 || t_armed) {
        (void)std::fputs("FailNthNew: counted from 1, one at a time\n", stderr);
        std::abort();
    }
    t_callsLeft = nth;
    t_armed = true;
}

FailNthNew::~FailNthNew() {
    t_armed = false;
}

bool FailNthNew::Struck() const {
    return t_callsLeft == 0;
}

void SetNewGate(NewGate gate) {
    g_gate = gate;
}

u64 NewCallsOfThisThread() {
    return t_calls;
}

}  // namespace k9erepl::test

using namespace k9erepl::test;  // the operators below stand outside every namespace

void* operator new(std::size_t size) {
    return AllocOrThrow(size);
}
void* operator new[](std::size_t size) {
    return AllocOrThrow(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return AllocOrNull(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return AllocOrNull(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return AllocOrThrow(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return AllocOrThrow(size, alignment);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return AllocOrNull(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return AllocOrNull(size, alignment);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    FreeAligned(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
    FreeAligned(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    FreeAligned(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
    FreeAligned(memory);
}
void operator delete(void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    FreeAligned(memory);
}
void operator delete[](void* memory, std::align_val_t, const std::nothrow_t&) noexcept {
    FreeAligned(memory);
}
