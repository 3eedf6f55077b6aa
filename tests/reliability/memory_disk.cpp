// The calls of the disk in memory; see the header.
#include "reliability/memory_disk.h"

#include <algorithm>
#include <array>
#include <utility>

#include "platform/system_error.h"

namespace k9erepl::reliability {

namespace {

using platform::FileDisposition;
using platform::NativeFile;
using platform::SystemErrorKind;
using test::SystemCall;

constexpr NativeFile kFirstHandle = 1000;  // no descriptor of the process

bool Refuse(SystemErrorKind kind) {
    platform::SetLastSystemError(platform::SystemErrorOf(kind));
    return false;
}

Change Of(ChangeKind kind, FileNumber file, i64 at, std::string bytes = {}) {
    return {.kind = kind, .file = file, .at = at, .bytes = std::move(bytes), .name = {}, .to = {}};
}
Change Named(ChangeKind kind, FileNumber file, const char* name, const char* to = "") {
    return {.kind = kind, .file = file, .at = 0, .bytes = {}, .name = name, .to = to};
}

}  // namespace

const char* NameOf(SystemCall call) {
    static constexpr std::array<const char*, 15> kNames = {
        "open",   "close",      "read",        "write",          "seek",
        "tell",   "set end of", "get size of", "flush",          "own",
        "rename", "link",       "remove",      "make directory", "flush directory"};
    const auto at = static_cast<std::size_t>(call);
    return at < kNames.size() ? kNames.at(at) : "other";
}

MemoryDisk::MemoryDisk() {
    using test::CallTable;
    Take<&CallTable::openFile, &MemoryDisk::Open>();
    Take<&CallTable::closeFile, &MemoryDisk::Close>();
    Take<&CallTable::readFile, &MemoryDisk::Read>();
    Take<&CallTable::writeFile, &MemoryDisk::Write>();
    Take<&CallTable::seekFile, &MemoryDisk::Seek>();
    Take<&CallTable::tellFile, &MemoryDisk::Tell>();
    Take<&CallTable::setFileEnd, &MemoryDisk::SetEnd>();
    Take<&CallTable::fileSize, &MemoryDisk::SizeOf>();
    Take<&CallTable::flushFile, &MemoryDisk::Flush>();
    Take<&CallTable::startFlush, &MemoryDisk::StartFlush>();
    Take<&CallTable::takeOwnerAndMode, &MemoryDisk::TakeOwner>();
    Take<&CallTable::lockFile, &MemoryDisk::Lock>();
    Take<&CallTable::unlockFile, &MemoryDisk::Unlock>();
    Take<&CallTable::fileIdentity, &MemoryDisk::Identify>();
    Take<&CallTable::nameIdentity, &MemoryDisk::IdentifyName>();
    Take<&CallTable::renameFile, &MemoryDisk::Rename>();
    Take<&CallTable::linkFile, &MemoryDisk::Link>();
    Take<&CallTable::removeFile, &MemoryDisk::Remove>();
    Take<&CallTable::makeDirectory, &MemoryDisk::MakeDirectory>();
    Take<&CallTable::flushDirectory, &MemoryDisk::FlushDirectory>();
}

void MemoryDisk::Mount(DiskImage image) {
    const std::lock_guard lock(m_mutex);
    m_image = std::move(image);
    m_nextFile = m_image.NextNumber();
    m_handles.clear();
}

DiskImage MemoryDisk::Image() const {
    const std::lock_guard lock(m_mutex);
    return m_image;
}

void MemoryDisk::StartRecording() {
    const std::lock_guard lock(m_mutex);
    m_changes.clear();
    m_recording = true;
}

std::size_t MemoryDisk::ChangeCount() const {
    const std::lock_guard lock(m_mutex);
    return m_changes.size();
}

Changes MemoryDisk::TakeChanges() {
    const std::lock_guard lock(m_mutex);
    m_recording = false;
    return std::exchange(m_changes, {});
}

void MemoryDisk::SetGate(Gate gate) {
    const std::lock_guard lock(m_mutex);
    m_gate = std::move(gate);
}

std::size_t MemoryDisk::OpenFiles() const {
    const std::lock_guard lock(m_mutex);
    return static_cast<std::size_t>(std::count_if(m_handles.begin(), m_handles.end(),
                                                  [](const Handle& h) { return h.file != 0; }));
}

MemoryDisk::Handle* MemoryDisk::Find(NativeFile file) {
    const auto at = static_cast<std::size_t>(file - kFirstHandle);
    if (file < kFirstHandle || at >= m_handles.size() || m_handles[at].file == 0) {
        Refuse(SystemErrorKind::kInvalidHandle);
        return nullptr;
    }
    return &m_handles[at];
}

bool MemoryDisk::Pass(const Attempt& attempt, u32* sizeMax) {
    if (m_gate == nullptr) {
        return true;
    }
    const Permit permit = m_gate(attempt);
    for (const Change& change : permit.others) {
        m_image.Apply(change);
    }
    if (sizeMax != nullptr) {
        *sizeMax = std::min(*sizeMax, permit.sizeMax);
    }
    return !permit.error || Refuse(*permit.error);
}

bool MemoryDisk::Pass(SystemCall call, const Handle& handle, u32 size, u32* sizeMax) {
    return m_gate == nullptr || Pass({call, handle.name, handle.position, size}, sizeMax);
}

void MemoryDisk::SetCapacity(i64 bytes, bool holesCount) {
    const std::lock_guard lock(m_mutex);
    m_capacity = bytes;
    m_holesCount = holesCount;
    m_fullCount = 0;
}

u64 MemoryDisk::FullCount() const {
    const std::lock_guard lock(m_mutex);
    return m_fullCount;
}

i64 MemoryDisk::UsedBytes(bool holesCount) const {
    const std::lock_guard lock(m_mutex);
    return m_image.UsedBytes(holesCount);
}

bool MemoryDisk::Fits(FileNumber file, i64 end, u32* sizeMax) {
    if (m_capacity < 0) {
        return true;
    }
    const FileBytes& bytes = m_image.At(file);
    const i64 has = m_holesCount ? bytes.Size() : bytes.StoredSize();
    const i64 missing = end - has - std::max<i64>(m_capacity - m_image.UsedBytes(m_holesCount), 0);
    if (end <= has || missing <= 0) {
        return true;
    }
    ++m_fullCount;
    if (sizeMax == nullptr || missing >= i64{*sizeMax}) {
        return Refuse(SystemErrorKind::kNoSpace);
    }
    *sizeMax -= static_cast<u32>(missing);
    return true;
}

void MemoryDisk::Do(Change change) {
    m_image.Apply(change);
    if (m_recording) {
        m_changes.push_back(std::move(change));
    }
}

// --- Files

template <typename Result, typename Deed>
Result MemoryDisk::OnFile(NativeFile file, SystemCall call, Result refused, Deed deed) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    return handle != nullptr && Pass(call, *handle) ? deed(*handle) : refused;
}

template <typename Deed>
bool MemoryDisk::OnName(const char* name, SystemCall call, Deed deed) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({call, name})) {
        return false;
    }
    const std::optional<FileNumber> file = m_image.NumberOf(name);
    return file ? deed(*file) : Refuse(SystemErrorKind::kNotFound);
}

NativeFile MemoryDisk::AddHandle(FileNumber file, const std::string& path,
                                 const platform::FileOpenRequest& request) {
    auto place = std::find_if(m_handles.begin(), m_handles.end(),
                              [](const Handle& handle) { return handle.file == 0; });
    place = place == m_handles.end() ? m_handles.insert(place, Handle{}) : place;
    *place = {file, 0, path, request.access != platform::FileAccess::kRead, request.writeThrough,
              false};
    return kFirstHandle + static_cast<NativeFile>(place - m_handles.begin());
}

NativeFile MemoryDisk::Open(const char* path, const platform::FileOpenRequest& request) {
    const std::lock_guard lock(m_mutex);
    if (!Pass({SystemCall::kOpen, path})) {
        return platform::kInvalidNativeFile;
    }
    std::optional<FileNumber> file = m_image.NumberOf(path);
    const bool creates = request.disposition != FileDisposition::kOpenExisting;
    if ((!file && !creates) || (file && request.disposition == FileDisposition::kCreateNew)) {
        Refuse(file ? SystemErrorKind::kAlreadyExists : SystemErrorKind::kNotFound);
        return platform::kInvalidNativeFile;
    }
    if (!file) {
        file = m_nextFile++;
        Do(Named(ChangeKind::kCreate, *file, path));
    } else if (request.disposition == FileDisposition::kCreateAlways) {
        Do(Of(ChangeKind::kSetEnd, *file, 0));
    }
    return AddHandle(*file, path, request);
}

bool MemoryDisk::Close(NativeFile file) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle == nullptr) {
        return false;
    }
    const bool passes = Pass(SystemCall::kClose, *handle);
    handle->file = 0;  // whatever is answered, as on Linux
    return passes;
}

i64 MemoryDisk::Read(NativeFile file, void* buffer, u32 size) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    u32 sizeMax = size;
    if (handle == nullptr || !Pass(SystemCall::kRead, *handle, size, &sizeMax)) {
        return -1;
    }
    const u32 got = m_image.At(handle->file).Read(handle->position, buffer, sizeMax);
    handle->position += got;
    return got;
}

i64 MemoryDisk::Write(NativeFile file, const void* data, u32 size) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    u32 sizeMax = size;
    if (handle == nullptr || !Pass(SystemCall::kWrite, *handle, size, &sizeMax)) {
        return -1;
    }
    if (!handle->writes) {
        Refuse(SystemErrorKind::kInvalidHandle);
        return -1;
    }
    if (!Fits(handle->file, handle->position + sizeMax, &sizeMax)) {
        return -1;
    }
    Do(Of(ChangeKind::kWrite, handle->file, handle->position,
          std::string(static_cast<const char*>(data), sizeMax)));
    if (handle->writesThrough) {
        Do(Of(ChangeKind::kFlush, handle->file, 0));
    }
    handle->position += sizeMax;
    return sizeMax;
}

i64 MemoryDisk::Seek(NativeFile file, i64 position) {
    return OnFile(file, SystemCall::kSeek, i64{-1}, [&](Handle& handle) {
        if (position < 0) {
            Refuse(SystemErrorKind::kNotSupported);
            return i64{-1};
        }
        return handle.position = position;
    });
}

i64 MemoryDisk::Tell(NativeFile file) {
    return OnFile(file, SystemCall::kTell, i64{-1}, [](Handle& handle) { return handle.position; });
}

bool MemoryDisk::SetEnd(NativeFile file, i64 size) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle == nullptr || !Pass({SystemCall::kSetEnd, handle->name, size}) ||
        (m_holesCount && !Fits(handle->file, size, nullptr))) {
        return false;
    }
    Do(Of(ChangeKind::kSetEnd, handle->file, size));
    return true;
}

i64 MemoryDisk::SizeOf(NativeFile file) {
    return OnFile(file, SystemCall::kFileSize, i64{-1},
                  [&](Handle& handle) { return m_image.At(handle.file).Size(); });
}

bool MemoryDisk::Flush(NativeFile file) {
    return OnFile(file, SystemCall::kFlush, false, [&](Handle& handle) {
        Do(Of(ChangeKind::kFlush, handle.file, 0));
        return true;
    });
}

bool MemoryDisk::TakeOwner(NativeFile file, const char* /*from*/) {
    return OnFile(file, SystemCall::kTakeOwnerAndMode, false, [](Handle&) { return true; });
}

bool MemoryDisk::Lock(NativeFile file) {
    return OnFile(file, SystemCall::kLockFile, false, [&](Handle& handle) {
        for (const Handle& other : m_handles) {
            if (&other != &handle && other.file == handle.file && other.locked) {
                return Refuse(SystemErrorKind::kLocked);
            }
        }
        return handle.locked = true;
    });
}

bool MemoryDisk::Unlock(NativeFile file) {
    const std::lock_guard lock(m_mutex);
    Handle* handle = Find(file);
    if (handle != nullptr) {
        handle->locked = false;
    }
    return handle != nullptr;
}

bool MemoryDisk::Identify(NativeFile file, platform::FileIdentity* identity) {
    return OnFile(file, SystemCall::kFileIdentity, false, [&](Handle& handle) {
        *identity = {.volume = 0, .number = handle.file};
        return true;
    });
}

// --- Names

bool MemoryDisk::IdentifyName(const char* path, platform::FileIdentity* identity) {
    return OnName(path, SystemCall::kNameIdentity, [&](FileNumber file) {
        *identity = {.volume = 0, .number = file};
        return true;
    });
}

bool MemoryDisk::Rename(const char* from, const char* to) {
    return OnName(from, SystemCall::kRename, [&](FileNumber file) {
        if (m_image.NumberOf(to) != file) {  // else two names of one file: nothing happens
            Do(Named(ChangeKind::kRename, file, from, to));
        }
        return true;
    });
}

bool MemoryDisk::Link(const char* existing, const char* name) {
    return OnName(existing, SystemCall::kLink, [&](FileNumber file) {
        if (m_image.NumberOf(name)) {
            return Refuse(SystemErrorKind::kAlreadyExists);
        }
        Do(Named(ChangeKind::kLink, file, name));
        return true;
    });
}

bool MemoryDisk::Remove(const char* path) {
    return OnName(path, SystemCall::kRemove, [&](FileNumber file) {
        Do(Named(ChangeKind::kRemove, file, path));
        return true;
    });
}

bool MemoryDisk::MakeDirectory(const char* path) {
    const std::lock_guard lock(m_mutex);
    return Pass({SystemCall::kMakeDirectory, path}) && Refuse(SystemErrorKind::kAlreadyExists);
}

bool MemoryDisk::FlushDirectory(const char* path) {
    const std::lock_guard lock(m_mutex);
    const bool passes = Pass({SystemCall::kFlushDirectory, path});
    if (passes) {
        Do(Named(ChangeKind::kFlushDirectory, 0, path));
    }
    return passes;
}

}  // namespace k9erepl::reliability
