// Repeats a system call that a signal interrupted. Used by the classes above the table.
#ifndef K9EREPL_PLATFORM_INTERRUPTED_H
#define K9EREPL_PLATFORM_INTERRUPTED_H

#include <type_traits>

#include "platform/system_error.h"

namespace k9erepl::platform {

// Entries of the table fail with false or with a negative number.
template <typename Result>
bool CallFailed(Result result) {
    if constexpr (std::is_same_v<Result, bool>) {
        return !result;
    } else {
        return result < 0;
    }
}

// Makes `attempt` until it succeeds or fails for another reason than an interruption; returns what
// the last attempt returned.
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
