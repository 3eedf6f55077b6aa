// The operating system's functions for the table of system calls. posix/ and windows/ define them,
// system_calls.cpp puts them into the table, and nobody else calls them. Each is the entry of
// nearly the same name in system_calls.h, where its contract stands; docs/porting.md, "The platform
// layer", lists the system call behind each of them. A new operating system defines all of them,
// and what process.h, thread.h, lock.h, system_error.h and file_names.h leave to the system.
#ifndef K9EREPL_PLATFORM_NATIVE_CALLS_H
#define K9EREPL_PLATFORM_NATIVE_CALLS_H

#include "platform/system_calls.h"

namespace k9erepl::platform::native {

// Open files: files.cpp.
NativeFile FileOpen(const char* path, const FileOpenRequest& request);
[[nodiscard]] bool FileClose(NativeFile file);
i64 FileRead(NativeFile file, void* buffer, u32 size);
i64 FileWrite(NativeFile file, const void* data, u32 size);
i64 FileSeek(NativeFile file, i64 position);
i64 FileTell(NativeFile file);
[[nodiscard]] bool FileSetEnd(NativeFile file, i64 size);
i64 FileSize(NativeFile file);
[[nodiscard]] bool FileFlush(NativeFile file);
void FileStartFlush(NativeFile file, i64 position, i64 size);
[[nodiscard]] bool FileTakeOwnerAndMode(NativeFile file, const char* from);

// The writer's lock and the identity of files: file_locks.cpp.
[[nodiscard]] bool FileLock(NativeFile file);
[[nodiscard]] bool FileUnlock(NativeFile file);
[[nodiscard]] bool FileIdentify(NativeFile file, FileIdentity* identity);
[[nodiscard]] bool NameIdentify(const char* path, FileIdentity* identity);

// File names: names.cpp.
[[nodiscard]] bool NameRename(const char* from, const char* to);
[[nodiscard]] bool NameLink(const char* existing, const char* name);
[[nodiscard]] bool NameRemove(const char* path);
[[nodiscard]] bool NameMakeDirectory(const char* path);
[[nodiscard]] bool NameFlushDirectory(const char* path);

// The C heap: memory.cpp.
void* MemoryAlloc(std::size_t size);
void MemoryFree(void* memory);

// Auto-reset events: events.cpp.
void* EventCreate();
void EventDestroy(void* event);
[[nodiscard]] bool EventSet(void* event);
[[nodiscard]] WaitResult EventWait(void* event, u32 timeoutMs);

// Threads: threads.cpp.
void* ThreadCreate(ThreadBody body, void* argument);
[[nodiscard]] bool ThreadSetAffinity(void* thread, u64 mask);
[[nodiscard]] bool ThreadResume(void* thread);
[[nodiscard]] WaitResult ThreadJoin(void* thread, u32 timeoutMs);
[[nodiscard]] bool ThreadTerminate(void* thread, u32 exitCode);
void ThreadDestroy(void* thread);

// Clocks: clocks.cpp.
u32 ClockTickCount();
u32 ClockCoarseTickCount();
[[nodiscard]] bool ClockPerformanceFrequency(i64* ticksPerSecond);
i64 ClockPerformanceCounter();
u64 ClockTimeStampCounter();

}  // namespace k9erepl::platform::native

#endif  // K9EREPL_PLATFORM_NATIVE_CALLS_H
