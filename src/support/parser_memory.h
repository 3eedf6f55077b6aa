// Objects in the system library's parser memory: the start records of the index thread and of the
// writing thread. Used by the modules that create threads.
#ifndef K9EREPL_SUPPORT_PARSER_MEMORY_H
#define K9EREPL_SUPPORT_PARSER_MEMORY_H

#include <k9sys/k9sys.h>

#include <new>
#include <type_traits>
#include <utility>

#include "platform/memory.h"

namespace k9erepl {

// A new T made of `args`, or null when there is no parser memory. T's constructor must not throw.
template <typename T, typename... Args>
T* NewInParserMemory(Args&&... args) {
    static_assert(alignof(T) <= platform::kHeapAlignment);
    static_assert(std::is_nothrow_constructible_v<T, Args...>);
    void* const memory = K9SysParserMemAlloc(sizeof(T));
    return memory == nullptr ? nullptr : new (memory) T{std::forward<Args>(args)...};
}

// Destroys what NewInParserMemory made; null does nothing.
template <typename T>
void DeleteInParserMemory(T* object) {
    if (object != nullptr) {
        object->~T();
        K9SysParserMemFree(object);
    }
}

// Destroys with DeleteInParserMemory, for std::unique_ptr.
struct ParserMemoryDeleter {
    template <typename T>
    void operator()(T* object) const {
        DeleteInParserMemory(object);
    }
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_PARSER_MEMORY_H
