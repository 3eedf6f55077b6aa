// System calls that fail when a test says so: the n-th write, the next flush, every allocation from
// now on. Used by the tests of every failure path.
//
//     ScopedSystemCalls systemCalls;              // first thing in the test, before any storage
//     FailWrite(2, SystemErrorKind::kNoSpace);    // the second write from now
//     FailFlush(1, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
//     ... EXPECT_EQ(CallCount(SystemCall::kWrite), 2U);
//
// Everything but making and ending a ScopedSystemCalls may be done while other threads are calling.
#ifndef K9EREPL_TESTS_SUPPORT_FAULT_INJECTION_H
#define K9EREPL_TESTS_SUPPORT_FAULT_INJECTION_H

#include <cstddef>

#include "platform/int_types.h"
#include "platform/system_error.h"
#include "support/call_layer.h"

namespace k9erepl::test {

using platform::SystemErrorKind;

enum class SystemCall {
    kOpen,
    kClose,
    kRead,
    kWrite,
    kSeek,
    kTell,
    kSetEnd,
    kFileSize,
    kFlush,
    kTakeOwnerAndMode,
    kRename,
    kLink,
    kRemove,
    kMakeDirectory,
    kFlushDirectory,
    kAlloc,
    kCreateEvent,
    kSetEvent,
    kWaitEvent,
    kCreateThread,
    kSetAffinity,
    kResumeThread,
    kJoinThread,
    kTerminateThread,
    kPerformanceFrequency,
    kLockFile,
    kFileIdentity,
    kNameIdentity,
};
inline constexpr std::size_t kSystemCallCount = 28;

enum class Repeat { kOnce, kFromThenOn };

// While it lives, the table of system calls counts and obeys the functions below; then the table is
// as it was before. Begins with no fault, counts of zero and real clocks. It must begin before and
// end after every other thread that uses the table. One at a time.
class ScopedSystemCalls : CallLayer<ScopedSystemCalls> {
  public:
    ScopedSystemCalls();
    ~ScopedSystemCalls();
    ScopedSystemCalls(const ScopedSystemCalls&) = delete;
    ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;

  private:
    friend CallLayer<ScopedSystemCalls>;
};

// --- Calls -------------------------------------------------------------------------------------

// The `nth` call from now on (1 is the next one) fails with `kind`, without reaching the system.
// Replaces what was planned for the same call. A failing wait or join answers kFailed.
void Fail(SystemCall call, u32 nth, SystemErrorKind kind = SystemErrorKind::kInputOutput,
          Repeat repeat = Repeat::kOnce);
// Takes every plan of `call` back.
void StopFailing(SystemCall call);
// Calls since the ScopedSystemCalls began, the failed ones included.
u32 CallCount(SystemCall call);

// A transfer that stays short: the `nth` write takes `bytes` bytes, and the attempt to write the
// rest fails with `kind`; the `nth` read gives `bytes` bytes, and the next one says end of file.
void ShortWrite(u32 nth, u32 bytes, SystemErrorKind kind = SystemErrorKind::kNoSpace);
void ShortRead(u32 nth, u32 bytes);
// A transfer that the system makes in two: callers notice nothing.
void SplitWrite(u32 nth, u32 bytes);
void SplitRead(u32 nth, u32 bytes);

// Counts only allocations of at least `minSize` bytes.
void FailAlloc(u32 nth, std::size_t minSize = 0, Repeat repeat = Repeat::kOnce);

// Short names for what tests fail most.
inline void FailOpen(u32 nth, SystemErrorKind kind = SystemErrorKind::kAccessDenied,
                     Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kOpen, nth, kind, repeat);
}
inline void FailRead(u32 nth, SystemErrorKind kind = SystemErrorKind::kInputOutput,
                     Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kRead, nth, kind, repeat);
}
inline void FailWrite(u32 nth, SystemErrorKind kind = SystemErrorKind::kNoSpace,
                      Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kWrite, nth, kind, repeat);
}
inline void FailSeek(u32 nth, SystemErrorKind kind = SystemErrorKind::kInputOutput,
                     Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kSeek, nth, kind, repeat);
}
inline void FailTell(u32 nth) {
    Fail(SystemCall::kTell, nth);
}
inline void FailFileSize(u32 nth) {
    Fail(SystemCall::kFileSize, nth);
}
inline void FailSetEnd(u32 nth, SystemErrorKind kind = SystemErrorKind::kNoSpace,
                       Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kSetEnd, nth, kind, repeat);
}
inline void FailFlush(u32 nth, SystemErrorKind kind = SystemErrorKind::kInputOutput,
                      Repeat repeat = Repeat::kOnce) {
    Fail(SystemCall::kFlush, nth, kind, repeat);
}
inline void FailRename(u32 nth, SystemErrorKind kind = SystemErrorKind::kAccessDenied) {
    Fail(SystemCall::kRename, nth, kind);
}
inline void FailRemove(u32 nth, SystemErrorKind kind = SystemErrorKind::kAccessDenied) {
    Fail(SystemCall::kRemove, nth, kind);
}
inline void FailFlushDirectory(u32 nth) {
    Fail(SystemCall::kFlushDirectory, nth);
}
inline void FailCreateEvent(u32 nth) {
    Fail(SystemCall::kCreateEvent, nth, SystemErrorKind::kOutOfMemory);
}
inline void FailSetEvent(u32 nth) {
    Fail(SystemCall::kSetEvent, nth, SystemErrorKind::kInvalidHandle);
}
inline void FailWaitEvent(u32 nth) {
    Fail(SystemCall::kWaitEvent, nth, SystemErrorKind::kInvalidHandle);
}
inline void FailCreateThread(u32 nth) {
    Fail(SystemCall::kCreateThread, nth, SystemErrorKind::kOutOfMemory);
}

// --- Clocks ------------------------------------------------------------------------------------

// From now on the tick count stands at `ms` until it is set or advanced.
void SetTickCount(u32 ms);
void AdvanceTickCount(u32 ms);
// From now on the performance counter stands at `ticks`.
void SetPerformanceCounter(i64 ticks);
void AdvancePerformanceCounter(i64 ticks);
void SetPerformanceFrequency(i64 ticksPerSecond);
// The next time stamp is `first`, and each later one `step` more.
void SetTimeStampCounter(u64 first, u64 step = 0);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_FAULT_INJECTION_H
