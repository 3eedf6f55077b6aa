// The bounds of revisions, and the one addition on them that must not overflow.
#ifndef K9EREPL_ENGINE_REVISION_H
#define K9EREPL_ENGINE_REVISION_H

#include <limits>

#include "platform/int_types.h"

namespace k9erepl {

// The highest revision that a record can have. The revision after it is still a number, which the
// next revision becomes when this one is used up.
inline constexpr i64 kMaxRev = std::numeric_limits<i64>::max() - 1;
// The inclusive upper bound of an enumeration without an end; no record has this revision.
inline constexpr i64 kEndOfRevs = std::numeric_limits<i64>::max();

// The revision after `rev`. Adds 1 to anything but kEndOfRevs, which stays as it is: a damaged file
// may claim any revision.
constexpr i64 NextRevAfter(i64 rev) {
    return rev == kEndOfRevs ? kEndOfRevs : rev + 1;
}

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_REVISION_H
