// Repeats a system call that a signal interrupted. An entry of the table is a single attempt, so
// File and its neighbours, which use the table, wrap their calls in this. On Windows no call is
// ever interrupted.
#ifndef K9EREPL_PLATFORM_INTERRUPTED_H
#define K9EREPL_PLATFORM_INTERRUPTED_H

#include <type_traits>

#include "platform/system_error.h"

namespace k9erepl::platform {

// Tells whether an entry of the table has failed: its result is false or a negative number.
template <typename Result>
bool CallFailed(Result result) {
    if constexpr (std::is_same_v<Result, bool>) {
        return !result;
    } else {
        return result < 0;
    }
}

// Calls `attempt` until it succeeds or fails for another reason than an interruption. Returns what
// the last attempt returned; LastSystemError() is the cause of its failure. There is no limit: a
// signal must not make a write fail.
template <typename Attempt>
auto RepeatInterrupted(Attempt attempt) {
    auto result = attempt();
    while (CallFailed(result) && LastSystemErrorIs(SystemErrorKind::kInterrupted)) {
        result = attempt();
    }
    return result;
}

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_INTERRUPTED_H
