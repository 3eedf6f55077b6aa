// Ends a thread of ours from outside. The thread leaves its body by an exception that is thrown at
// the one place where it waits: at an event. The stack is never unwound from another place, so the
// locks and the memory of the body are released as on any other way out. (The system's own
// cancellation would also strike inside destructors and noexcept functions, and would end the
// process there.) Private to this folder.
#ifndef K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H
#define K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H

#include "platform/posix/monitor.h"

namespace k9erepl::platform::native {

// Thrown by the wait of a thread that was told to end; caught where the thread began.
struct ThreadTermination {};

// Announces, as long as it exists, that the calling thread waits with `monitor`, so that a
// termination can wake it. Does nothing for threads that are not ours. REQUIRES: `monitor` is not
// locked.
class InterruptibleWait {
  public:
    explicit InterruptibleWait(Monitor& monitor);
    ~InterruptibleWait();
    InterruptibleWait(const InterruptibleWait&) = delete;
    InterruptibleWait& operator=(const InterruptibleWait&) = delete;

    // Tells whether the calling thread has to leave by throwing ThreadTermination. Never true while
    // its stack is already being unwound: a destructor of the body may wait.
    [[nodiscard]] bool MustEnd() const;
};

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_POSIX_THREAD_TERMINATION_H
