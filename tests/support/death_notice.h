// Names the test that was running when a test program dies, on standard error: a crash that comes
// once in many runs must not be anonymous. main (death_notice.cpp) starts it.
#ifndef K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H
#define K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H

#include <cstddef>

#include "platform/int_types.h"

namespace k9erepl::test {

// Begins the line with the death and the running test; the caller adds the rest and ends it. False,
// and nothing is begun, for all calls in this process but the first, so that a program which dies
// in two threads at once, or dies while it tells of it, writes one line. The line is built without
// memory, locks or the C library's streams, so that a signal handler may do it; what does not fit
// is cut off.
bool TellDeath();
void Tell(const char* text);
void TellHex(u64 number);  // as "0x1f"
void TellEnd();

// The system's part of it, in posix/ and windows/. WatchForDeath sees to it that each deadly signal
// or exception is told, and lets the program die as it would have without it.
void WriteToStandardError(const char* text, std::size_t size);
void WatchForDeath();

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H
