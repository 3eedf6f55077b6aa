// The recursive lock: a critical section in the bytes that the class keeps for it.
#include "platform/lock.h"

#include <new>

#include "platform/windows/win32.h"

namespace k9erepl::platform {
namespace {

CRITICAL_SECTION* SectionIn(unsigned char* storage) {
    return std::launder(reinterpret_cast<CRITICAL_SECTION*>(storage));
}

}  // namespace

RecursiveLock::RecursiveLock() {
    static_assert(sizeof(CRITICAL_SECTION) <= sizeof m_native);
    static_assert(alignof(CRITICAL_SECTION) <= kNativeAlignment);
    InitializeCriticalSection(new (m_native) CRITICAL_SECTION);
}

RecursiveLock::~RecursiveLock() {
    DeleteCriticalSection(SectionIn(m_native));
}

void RecursiveLock::lock() {
    EnterCriticalSection(SectionIn(m_native));
}

void RecursiveLock::unlock() {
    LeaveCriticalSection(SectionIn(m_native));
}

bool RecursiveLock::try_lock() {
    return TryEnterCriticalSection(SectionIn(m_native)) != FALSE;
}

}  // namespace k9erepl::platform
