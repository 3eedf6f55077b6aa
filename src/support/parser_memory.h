// Objects in the system library's parser memory. A host expects the start records of threads there
// and can limit that memory; nothing else of ours lies in it. Used by support/worker_thread.h, for
// the index thread and the writing thread.
#ifndef K9EREPL_SUPPORT_PARSER_MEMORY_H
#define K9EREPL_SUPPORT_PARSER_MEMORY_H

#include <k9sys/k9sys.h>

#include <new>
#include <type_traits>
#include <utility>

#include "platform/memory.h"

namespace k9erepl {

// Makes a new T of `args`; returns null when there is no parser memory. The caller owns the object
// and gives it back with DeleteInParserMemory, from any thread. T's constructor must not throw, and
// T must not need more alignment than the C heap gives: a host's library may take the memory from
// there.
template <typename T, typename... Args>
T* NewInParserMemory(Args&&... args) {
    static_assert(alignof(T) <= platform::kHeapAlignment);
    static_assert(std::is_nothrow_constructible_v<T, Args...>);
    void* const memory = K9SysParserMemAlloc(sizeof(T));
    return memory == nullptr ? nullptr : new (memory) T{std::forward<Args>(args)...};
}

// Destroys an object of NewInParserMemory and frees its memory; null does nothing. The destructor
// runs on the calling thread.
template <typename T>
void DeleteInParserMemory(T* object) {
    if (object != nullptr) {
        object->~T();
        K9SysParserMemFree(object);
    }
}

// Lets a std::unique_ptr own such an object:
//
//     std::unique_ptr<platform::Thread, ParserMemoryDeleter> m_record;
//
// It has no state, so the pointer is no larger than a plain one.
struct ParserMemoryDeleter {
    template <typename T>
    void operator()(T* object) const {
        DeleteInParserMemory(object);
    }
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_PARSER_MEMORY_H
