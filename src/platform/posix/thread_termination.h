// How a thread of ours is ended from outside. The thread leaves its body by an exception, thrown
// at the one place where it waits: an event. Nothing is ever unwound at another place, so locks
// and memory of the body are released as on any other way out. (The system's own cancellation
// would also strike inside destructors and noexcept functions, and ends the process there.)
// Private to this folder.
#ifndef K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H
#define K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H

#include "platform/posix/monitor.h"

namespace k9erepl::platform::native {

// Thrown by the wait of a thread that was told to end; caught where the thread began.
struct ThreadTermination {};

// Announces, while it lives, that the calling thread waits with `monitor`, so that a termination
// can wake it. Does nothing for threads that are not ours. REQUIRES: `monitor` is not locked.
class InterruptibleWait {
  public:
    explicit InterruptibleWait(Monitor& monitor);
    ~InterruptibleWait();
    InterruptibleWait(const InterruptibleWait&) = delete;
    InterruptibleWait& operator=(const InterruptibleWait&) = delete;

    // Whether the calling thread has to leave by throwing ThreadTermination. Never while it is
    // already being unwound: a destructor of the body may wait.
    bool MustEnd() const;
};

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H
