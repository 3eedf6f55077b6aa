// An open file: repeats calls that were interrupted and completes transfers that were short.
#include "platform/file.h"

#include <cassert>
#include <utility>

#include "platform/interrupted.h"
#include "platform/process.h"
#include "platform/system_error.h"

namespace k9erepl::platform {

File::~File() {
    Close();
}

File::File(File&& other) noexcept
    : m_file(std::exchange(other.m_file, kInvalidNativeFile)),
      m_lockedBy(std::exchange(other.m_lockedBy, kNoProcess)) {}

File& File::operator=(File&& other) noexcept {
    if (this != &other) {
        Close();
        m_file = std::exchange(other.m_file, kInvalidNativeFile);
        m_lockedBy = std::exchange(other.m_lockedBy, kNoProcess);
    }
    return *this;
}

bool File::Open(const char* path, const FileOpenRequest& request) {
    assert(path != nullptr);
    const NativeFile opened =
        RepeatInterrupted([&] { return TheSystemCalls().openFile(path, request); });
    if (opened == kInvalidNativeFile) {
        return false;
    }
    Close();
    m_file = opened;
    return true;
}

void File::Close() {
    if (IsOpen()) {
        Unlock();
        TheSystemCalls().closeFile(std::exchange(m_file, kInvalidNativeFile));
    }
}

bool File::Read(void* buffer, u32 size, u32* got) {
    assert(got != nullptr);
    *got = 0;
    while (*got < size) {
        const i64 count = RepeatInterrupted([&] {
            return TheSystemCalls().readFile(m_file, static_cast<u8*>(buffer) + *got, size - *got);
        });
        if (count < 0) {
            return false;
        }
        if (count == 0) {
            break;
        }
        *got += static_cast<u32>(count);
    }
    return true;
}

bool File::Write(const void* data, u32 size, u32* put) {
    assert(put != nullptr);
    *put = 0;
    while (*put < size) {
        const i64 count = RepeatInterrupted([&] {
            return TheSystemCalls().writeFile(m_file, static_cast<const u8*>(data) + *put,
                                              size - *put);
        });
        if (count == 0) {
            // A system that takes no byte and names no reason has no space.
            SetLastSystemError(SystemErrorOf(SystemErrorKind::kNoSpace));
        }
        if (count <= 0) {
            return false;
        }
        *put += static_cast<u32>(count);
    }
    return true;
}

bool File::Seek(i64 position) {
    return RepeatInterrupted([&] { return TheSystemCalls().seekFile(m_file, position); }) >= 0;
}

bool File::Tell(i64* position) {
    assert(position != nullptr);
    const i64 found = RepeatInterrupted([&] { return TheSystemCalls().tellFile(m_file); });
    if (found < 0) {
        return false;
    }
    *position = found;
    return true;
}

bool File::SetEnd(i64 size) {
    return RepeatInterrupted([&] { return TheSystemCalls().setFileEnd(m_file, size); });
}

bool File::GetSize(i64* size) const {
    assert(size != nullptr);
    const i64 found = RepeatInterrupted([&] { return TheSystemCalls().fileSize(m_file); });
    if (found < 0) {
        return false;
    }
    *size = found;
    return true;
}

bool File::FlushToDisk() {
    return RepeatInterrupted([&] { return TheSystemCalls().flushFile(m_file); });
}

void File::StartFlush(i64 position, i64 size) {
    TheSystemCalls().startFlush(m_file, position, size);
}

bool File::TakeOwnerAndMode(const char* path) {
    assert(path != nullptr);
    return RepeatInterrupted([&] { return TheSystemCalls().takeOwnerAndMode(m_file, path); });
}

LockResult File::TryLock() {
    assert(IsOpen() && !IsLocked());
    if (RepeatInterrupted([&] { return TheSystemCalls().lockFile(m_file); })) {
        m_lockedBy = OwnProcessId();
        return LockResult::kTaken;
    }
    if (LastSystemErrorIs(SystemErrorKind::kLocked)) {
        return LockResult::kHeldByAnother;
    }
    return LastSystemErrorIs(SystemErrorKind::kNotSupported) ? LockResult::kNotSupported
                                                             : LockResult::kFailed;
}

// Frees the lock by a call of its own, not just by closing the file: a child that was forked
// meanwhile has a copy of the handle, and with that the lock would live on. The child itself must
// not free what belongs to its parent.
void File::Unlock() {
    if (std::exchange(m_lockedBy, kNoProcess) == OwnProcessId()) {
        TheSystemCalls().unlockFile(m_file);
    }
}

bool File::GetIdentity(FileIdentity* identity) const {
    assert(identity != nullptr);
    return RepeatInterrupted([&] { return TheSystemCalls().fileIdentity(m_file, identity); });
}

}  // namespace k9erepl::platform
