// How a program ends here that dies.
#ifndef K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H
#define K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H

#include "support/child_process.h"

namespace k9erepl::test {

inline constexpr ChildEnd kEndOfAbort{3, 0};      // the C library's
inline constexpr ChildEnd kEndOfWildWrite{0, 5};  // the exception "access violation"
inline constexpr bool kUndefinedBehaviourEnds = false;

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H
