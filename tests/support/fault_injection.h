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

// The entries of the table that can fail; fault_injection.cpp lists them in this order.
// clang-format off
enum class SystemCall {
    kOpen, kClose, kRead, kWrite, kSeek, kTell, kSetEnd, kFileSize, kFlush, kTakeOwnerAndMode,
    kRename, kLink, kRemove, kMakeDirectory, kFlushDirectory, kAlloc, kCreateEvent, kSetEvent,
    kWaitEvent, kCreateThread, kSetAffinity, kResumeThread, kJoinThread, kTerminateThread,
    kPerformanceFrequency, kLockFile, kFileIdentity, kNameIdentity
};
// clang-format on

enum class Repeat { kOnce, kFromThenOn };

// While it lives, the table of system calls counts and obeys the functions below; then the table is
// as it was before. Begins with no fault, counts of zero and real clocks. It must begin before and
// end after every other thread that uses the table. One at a time.
class ScopedSystemCalls {
  public:
    ScopedSystemCalls();
    ~ScopedSystemCalls();
    ScopedSystemCalls(const ScopedSystemCalls&) = delete;
    ScopedSystemCalls& operator=(const ScopedSystemCalls&) = delete;
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

// Short names for what tests fail most, as functions of the number, the kind and the repetition:
// FailWrite(2) is Fail(SystemCall::kWrite, 2, SystemErrorKind::kNoSpace).
template <SystemCall kCall, SystemErrorKind kUsualKind>
struct FailCall {
    void operator()(u32 nth, SystemErrorKind kind = kUsualKind,
                    Repeat repeat = Repeat::kOnce) const {
        Fail(kCall, nth, kind, repeat);
    }
};
inline constexpr FailCall<SystemCall::kOpen, SystemErrorKind::kAccessDenied> FailOpen;
inline constexpr FailCall<SystemCall::kRead, SystemErrorKind::kInputOutput> FailRead;
inline constexpr FailCall<SystemCall::kWrite, SystemErrorKind::kNoSpace> FailWrite;
inline constexpr FailCall<SystemCall::kSeek, SystemErrorKind::kInputOutput> FailSeek;
inline constexpr FailCall<SystemCall::kTell, SystemErrorKind::kInputOutput> FailTell;
inline constexpr FailCall<SystemCall::kFileSize, SystemErrorKind::kInputOutput> FailFileSize;
inline constexpr FailCall<SystemCall::kSetEnd, SystemErrorKind::kNoSpace> FailSetEnd;
inline constexpr FailCall<SystemCall::kFlush, SystemErrorKind::kInputOutput> FailFlush;
inline constexpr FailCall<SystemCall::kRename, SystemErrorKind::kAccessDenied> FailRename;
inline constexpr FailCall<SystemCall::kRemove, SystemErrorKind::kAccessDenied> FailRemove;
inline constexpr FailCall<SystemCall::kFlushDirectory, SystemErrorKind::kInputOutput>
    FailFlushDirectory;
inline constexpr FailCall<SystemCall::kCreateEvent, SystemErrorKind::kOutOfMemory> FailCreateEvent;
inline constexpr FailCall<SystemCall::kSetEvent, SystemErrorKind::kInvalidHandle> FailSetEvent;
inline constexpr FailCall<SystemCall::kWaitEvent, SystemErrorKind::kInvalidHandle> FailWaitEvent;
inline constexpr FailCall<SystemCall::kCreateThread, SystemErrorKind::kOutOfMemory>
    FailCreateThread;

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
