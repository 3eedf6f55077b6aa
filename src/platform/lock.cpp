// What lock() does when the recursive lock is in use; see the header.
#include "platform/lock.h"

namespace k9erepl::platform {

void RecursiveLock::LockInUse(ThreadMark me) {
    if (!TakeAgain(me)) {
        TakeAfterWait();
        m_owner.store(me, std::memory_order_relaxed);
    }
}

}  // namespace k9erepl::platform
