// The table through which nearly every call into the operating system goes. Each entry is ONE
// attempt of one primitive: it may be interrupted, and a transfer may be short. The classes of this
// folder repeat and complete. Tests put their own functions into single entries to make the n-th
// write fail, an event unavailable or the clock stand still. Nothing outside this folder and the
// tests uses the table. docs/porting.md, "The platform layer", lists what each entry calls on each
// system.
#ifndef K9EREPL_PLATFORM_SYSTEM_CALLS_H
#define K9EREPL_PLATFORM_SYSTEM_CALLS_H

#include <cstddef>

#include "platform/file_identity.h"
#include "platform/file_modes.h"
#include "platform/int_types.h"
#include "platform/wait_result.h"

namespace k9erepl::platform {

// A file descriptor or a HANDLE.
using NativeFile = std::intptr_t;
inline constexpr NativeFile kInvalidNativeFile = -1;

// The start routine of a thread; the result is the thread's exit code.
using ThreadBody = u32 (*)(void* argument);

// Unless an entry says otherwise, failure is false, null, -1 or kInvalidNativeFile, and its cause
// is LastSystemError(). Positions and sizes are bytes. Any entry may be called by several threads
// at once, but for one file or thread record by one at a time. No entry may be null.
struct SystemCalls {
    // Files. Opening refuses anything but a regular file, without blocking on a pipe or a device
    // (kNotARegularFile, or the system's own code for a directory). startFlush keeps the last error
    // as it is. takeOwnerAndMode gives an open file the owner, as far as the process may, and the
    // permissions of `from`; it does nothing on Windows.
    NativeFile (*openFile)(const char* path, const FileOpenRequest& request);
    bool (*closeFile)(NativeFile file);
    i64 (*readFile)(NativeFile file, void* buffer, u32 size);       // bytes; 0 at the end
    i64 (*writeFile)(NativeFile file, const void* data, u32 size);  // bytes
    i64 (*seekFile)(NativeFile file, i64 position);                 // the new position
    i64 (*tellFile)(NativeFile file);                               // the position
    bool (*setFileEnd)(NativeFile file, i64 size);                  // pointer unspecified after
    i64 (*fileSize)(NativeFile file);
    bool (*flushFile)(NativeFile file);
    void (*startFlush)(NativeFile file, i64 position, i64 size);  // a hint
    bool (*takeOwnerAndMode)(NativeFile file, const char* from);

    // The writer's lock (file_lock.h). lockFile never waits: it fails with kLocked when another
    // handle has the lock, and with kNotSupported where there are no such locks. nameIdentity
    // follows links, and takes folders, too.
    bool (*lockFile)(NativeFile file);
    bool (*unlockFile)(NativeFile file);
    bool (*fileIdentity)(NativeFile file, FileIdentity* identity);
    bool (*nameIdentity)(const char* path, FileIdentity* identity);

    // Names. renameFile replaces a file that stands at `to`. Between two volumes it fails with
    // kCrossVolume, or the system copies by itself (Windows). makeDirectory fails with
    // kAlreadyExists when there is one.
    bool (*renameFile)(const char* from, const char* to);
    bool (*linkFile)(const char* existing, const char* name);  // hard link
    bool (*removeFile)(const char* path);
    bool (*makeDirectory)(const char* path);
    bool (*flushDirectory)(const char* path);  // true where not needed

    // Memory from the C heap, for blocks and buffers. allocMemory sets no error.
    void* (*allocMemory)(std::size_t size);
    void (*freeMemory)(void* memory);

    // Auto-reset events, not set at first. Time-outs are milliseconds, or kWaitForever. On POSIX
    // systems waitEvent is where a thread of ours ends when it was told to: it leaves by an
    // exception that is not a std::exception.
    void* (*createEvent)();
    void (*destroyEvent)(void* event);
    bool (*setEvent)(void* event);
    WaitResult (*waitEvent)(void* event, u32 timeoutMs);

    // Threads, created suspended. destroyThread gives the record up: after the thread was joined,
    // or instead, in which case the thread runs on by itself.
    void* (*createThread)(ThreadBody body, void* argument);
    bool (*setThreadAffinity)(void* thread, u64 mask);
    bool (*resumeThread)(void* thread);
    WaitResult (*joinThread)(void* thread, u32 timeoutMs);
    bool (*terminateThread)(void* thread, u32 exitCode);  // asks; join tells
    void (*destroyThread)(void* thread);

    // Clocks.
    u32 (*tickCount)();        // milliseconds, wraps
    u32 (*coarseTickCount)();  // the same clock at the system's last tick
    bool (*performanceFrequency)(i64* ticksPerSecond);
    i64 (*performanceCounter)();
    u64 (*timeStampCounter)();
};

// The one table of this copy of the library. Only tests write to it, while no other thread uses it.
namespace detail {
extern SystemCalls g_systemCalls;
}
inline SystemCalls& TheSystemCalls() {
    return detail::g_systemCalls;
}

// The operating system's own entries, with which the table starts.
const SystemCalls& NativeSystemCalls();

}  // namespace k9erepl::platform

#endif  // K9EREPL_PLATFORM_SYSTEM_CALLS_H
