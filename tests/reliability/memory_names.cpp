// The calls of the disk in memory that are about names; see the header.
#include "platform/system_error.h"
#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

namespace {

using platform::SystemErrorKind;
using test::SystemCall;

bool Refuse(SystemErrorKind kind) {
    platform::SetLastSystemError(platform::SystemErrorOf(kind));
    return false;
}

Change Of(ChangeKind kind, FileNumber file, const char* name, const char* to = "") {
    return {.kind = kind, .file = file, .at = 0, .bytes = {}, .name = name, .to = to};
}

}  // namespace

bool MemoryDisk::Lock(platform::NativeFile file) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle == nullptr || !Pass(SystemCall::kLockFile, *handle)) {
        return false;
    }
    for (const Handle& other : m_handles) {
        if (&other != handle && other.file == handle->file && other.locked) {
            return Refuse(SystemErrorKind::kLocked);
        }
    }
    return handle->locked = true;
}

bool MemoryDisk::Unlock(platform::NativeFile file) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle == nullptr) {
        return false;
    }
    handle->locked = false;
    return true;
}

bool MemoryDisk::Identify(platform::NativeFile file, platform::FileIdentity* identity) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle == nullptr || !Pass(SystemCall::kFileIdentity, *handle)) {
        return false;
    }
    *identity = {.volume = 0, .number = handle->file};
    return true;
}

bool MemoryDisk::IdentifyName(const char* path, platform::FileIdentity* identity) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kNameIdentity, path})) {
        return false;
    }
    const std::optional<FileNumber> file = m_image.NumberOf(path);
    if (!file) {
        return Refuse(SystemErrorKind::kNotFound);
    }
    *identity = {.volume = 0, .number = *file};
    return true;
}

bool MemoryDisk::Rename(const char* from, const char* to) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kRename, from})) {
        return false;
    }
    const std::optional<FileNumber> file = m_image.NumberOf(from);
    if (!file) {
        return Refuse(SystemErrorKind::kNotFound);
    }
    if (m_image.NumberOf(to) == file) {
        return true;  // two names of one file: nothing happens
    }
    Do(Of(ChangeKind::kRename, *file, from, to));
    return true;
}

bool MemoryDisk::Link(const char* existing, const char* name) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kLink, existing})) {
        return false;
    }
    const std::optional<FileNumber> file = m_image.NumberOf(existing);
    if (!file || m_image.NumberOf(name)) {
        return Refuse(file ? SystemErrorKind::kAlreadyExists : SystemErrorKind::kNotFound);
    }
    Do(Of(ChangeKind::kLink, *file, name));
    return true;
}

bool MemoryDisk::Remove(const char* path) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kRemove, path})) {
        return false;
    }
    const std::optional<FileNumber> file = m_image.NumberOf(path);
    if (!file) {
        return Refuse(SystemErrorKind::kNotFound);
    }
    Do(Of(ChangeKind::kRemove, *file, path));
    return true;
}

bool MemoryDisk::MakeDirectory(const char* path) {
    const std::lock_guard lock(m_mutex);
    return Pass({SystemCall::kMakeDirectory, path}) && Refuse(SystemErrorKind::kAlreadyExists);
}

bool MemoryDisk::FlushDirectory(const char* path) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kFlushDirectory, path})) {
        return false;
    }
    Do(Of(ChangeKind::kFlushDirectory, 0, path));
    return true;
}

}  // namespace k9erepl::reliability
