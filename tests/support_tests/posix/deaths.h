// How a program ends here that dies. A sanitizer ends it itself, for what it finds.
#ifndef K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H
#define K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H

#include <csignal>

#include "support/child_process.h"

namespace k9erepl::test {

inline constexpr ChildEnd kEndOfAbort{0, SIGABRT};
#if defined(__SANITIZE_ADDRESS__)  // together with the one of undefined behaviour
inline constexpr bool kUndefinedBehaviourEnds = true;
inline constexpr ChildEnd kEndOfWildWrite{1, 0};
#elif defined(__SANITIZE_THREAD__)
inline constexpr bool kUndefinedBehaviourEnds = false;
inline constexpr ChildEnd kEndOfWildWrite{66, 0};
#else
inline constexpr bool kUndefinedBehaviourEnds = false;
inline constexpr ChildEnd kEndOfWildWrite{0, SIGSEGV};
#endif

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_TESTS_DEATHS_H
