// The table of system calls, filled with the operating system's own entries.
#include "platform/system_calls.h"

#include "platform/native_calls.h"

namespace k9erepl::platform {
namespace {

constexpr SystemCalls kNativeCalls = {
    .openFile = native::FileOpen,
    .closeFile = native::FileClose,
    .readFile = native::FileRead,
    .writeFile = native::FileWrite,
    .seekFile = native::FileSeek,
    .tellFile = native::FileTell,
    .setFileEnd = native::FileSetEnd,
    .fileSize = native::FileSize,
    .flushFile = native::FileFlush,
    .startFlush = native::FileStartFlush,
    .takeOwnerAndMode = native::FileTakeOwnerAndMode,
    .lockFile = native::FileLock,
    .unlockFile = native::FileUnlock,
    .fileIdentity = native::FileIdentify,
    .nameIdentity = native::NameIdentify,
    .renameFile = native::NameRename,
    .linkFile = native::NameLink,
    .removeFile = native::NameRemove,
    .makeDirectory = native::NameMakeDirectory,
    .flushDirectory = native::NameFlushDirectory,
    .allocMemory = native::MemoryAlloc,
    .freeMemory = native::MemoryFree,
    .createEvent = native::EventCreate,
    .destroyEvent = native::EventDestroy,
    .setEvent = native::EventSet,
    .waitEvent = native::EventWait,
    .createThread = native::ThreadCreate,
    .setThreadAffinity = native::ThreadSetAffinity,
    .resumeThread = native::ThreadResume,
    .joinThread = native::ThreadJoin,
    .terminateThread = native::ThreadTerminate,
    .destroyThread = native::ThreadDestroy,
    .tickCount = native::ClockTickCount,
    .coarseTickCount = native::ClockCoarseTickCount,
    .performanceFrequency = native::ClockPerformanceFrequency,
    .performanceCounter = native::ClockPerformanceCounter,
    .timeStampCounter = native::ClockTimeStampCounter,
};

}  // namespace

// Filled before any code runs, because the load guard works during static initialisation.
constinit SystemCalls detail::g_systemCalls = kNativeCalls;

const SystemCalls& NativeSystemCalls() {
    return kNativeCalls;
}

}  // namespace k9erepl::platform
