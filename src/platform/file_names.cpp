// Operations on file names that are more than one system call.
#include "platform/file_names.h"

#include <algorithm>
#include <cassert>

#include "platform/file.h"
#include "platform/interrupted.h"
#include "platform/memory.h"
#include "platform/system_calls.h"
#include "platform/system_error.h"

namespace k9erepl::platform {
namespace {

constexpr u32 kCopyPieceSize = 1024 * 1024;

// The directory part of `path` with its separator; empty when there is none.
std::string DirectoryPart(const std::string& path) {
    const auto end = std::find_if(path.rbegin(), path.rend(), IsPathSeparator);
    return {path.begin(), end.base()};
}

bool FlushDirectory(const std::string& directory) {
    const std::string name = directory.empty() ? "." : directory;
    return RepeatInterrupted([&] { return TheSystemCalls().flushDirectory(name.c_str()); });
}

bool Rename(const std::string& from, const std::string& to) {
    return RepeatInterrupted([&] { return TheSystemCalls().renameFile(from.c_str(), to.c_str()); });
}

bool MakeDirectory(const std::string& path) {
    if (RepeatInterrupted([&] { return TheSystemCalls().makeDirectory(path.c_str()); })) {
        return FlushParentDirectory(path) || LastSystemErrorIs(SystemErrorKind::kAccessDenied);
    }
    return LastSystemErrorIs(SystemErrorKind::kAlreadyExists);
}

bool CopyBytes(File& from, File& to) {
    const MemoryBuffer piece = AllocBuffer(kCopyPieceSize);
    if (piece == nullptr) {
        SetLastSystemError(SystemErrorOf(SystemErrorKind::kOutOfMemory));
        return false;
    }
    u32 got = 0;
    do {
        u32 put = 0;
        if (!from.Read(piece.get(), kCopyPieceSize, &got) || !to.Write(piece.get(), got, &put)) {
            return false;
        }
    } while (got == kCopyPieceSize);
    return true;
}

// Makes `copy`, a new file, equal to `from` and puts it on the disk: bytes, owner and permissions.
bool CopyToNewFile(const std::string& from, const std::string& copy) {
    File source;
    File target;
    return source.Open(from.c_str(), {.access = FileAccess::kRead, .sequentialScan = true}) &&
           target.Open(copy.c_str(), {.access = FileAccess::kWrite,
                                      .disposition = FileDisposition::kCreateNew,
                                      .ownerOnly = true}) &&
           target.TakeOwnerAndMode(from.c_str()) && CopyBytes(source, target) &&
           target.FlushToDisk();
}

bool MoveAcrossVolumes(const std::string& from, const std::string& to) {
    const std::string copy = to + ".moving";
    // Dropped: a crash in an earlier move may have left one. If it stays, the copy below fails.
    (void)RemoveFile(copy);
    if (!CopyToNewFile(from, copy) || !Rename(copy, to)) {
        const SystemError cause = LastSystemError();
        (void)RemoveFile(copy);  // dropped: the next move removes it
        SetLastSystemError(cause);
        return false;
    }
    if (!FlushParentDirectory(to) && !LastSystemErrorIs(SystemErrorKind::kAccessDenied)) {
        return false;
    }
    (void)RemoveFile(from);  // dropped: the move is done, even if the source cannot be deleted
    return true;
}

}  // namespace

bool RemoveFile(const std::string& path) {
    return RepeatInterrupted([&] { return TheSystemCalls().removeFile(path.c_str()); });
}

bool MoveFileReplacing(const std::string& from, const std::string& to) {
    if (Rename(from, to)) {
        return true;
    }
    return LastSystemErrorIs(SystemErrorKind::kCrossVolume) && MoveAcrossVolumes(from, to);
}

bool LinkFile(const std::string& existing, const std::string& name) {
    return RepeatInterrupted(
        [&] { return TheSystemCalls().linkFile(existing.c_str(), name.c_str()); });
}

bool GetIdentity(const std::string& path, FileIdentity* identity) {
    return RepeatInterrupted([&] { return TheSystemCalls().nameIdentity(path.c_str(), identity); });
}

bool MakeParentDirectories(const std::string& path) {
    // Only the result for the innermost one counts: roots, drives and shares exist, and making them
    // fails.
    bool made = true;
    for (std::size_t end = 1; end < path.size(); ++end) {
        if (IsPathSeparator(path[end]) && !IsPathSeparator(path[end - 1])) {
            made = MakeDirectory(path.substr(0, end));
        }
    }
    return made;
}

bool FlushParentDirectory(const std::string& path) {
    return FlushDirectory(DirectoryPart(path));
}

}  // namespace k9erepl::platform
