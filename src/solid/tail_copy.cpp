// Keeping the bytes behind a damage; see the header.
#include "solid/tail_copy.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/file_names.h"
#include "platform/memory.h"
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/file_replace.h"
#include "support/durable_names.h"
#include "support/log.h"

namespace k9erepl {

using platform::File;
using platform::LastSystemError;

namespace {

constexpr u32 kPieceSize = 1024 * 1024;

// The bytes to be kept, and two buffers to read them with.
struct Tail {
    File& source;
    i64 from;
    i64 size;
    platform::MemoryBuffer piece = platform::AllocBuffer(kPieceSize);
    platform::MemoryBuffer other = platform::AllocBuffer(kPieceSize);

    // Hands each piece to `action`, which says whether to go on.
    template <typename Action>
    [[nodiscard]] ResultCode ForEachPiece(Action action) {
        if (ResultCode rc = SeekTo(source, from); rc != RC_OK) {
            return rc;
        }
        for (i64 done = 0; done < size;) {
            const auto length = static_cast<u32>(std::min(size - done, i64{kPieceSize}));
            u32 got = 0;
            if (ResultCode rc = ReadWhole(source, piece.get(), length, &got); rc != RC_OK) {
                return rc;
            }
            if (!action(length)) {
                return RC_OK;
            }
            done += length;
        }
        return RC_OK;
    }
};

enum class Occupied { kFree, kSameBytes, kOtherBytes };

// A file we cannot read is not ours: keep it and try the next name.
[[nodiscard]] ResultCode LookAt(const std::string& name, Tail& tail, Occupied* occupied) {
    assert(tail.piece != nullptr && tail.other != nullptr);
    File file;
    i64 size = 0;
    *occupied = Occupied::kOtherBytes;
    if (!file.Open(name.c_str(), {.access = platform::FileAccess::kRead})) {
        if (platform::LastSystemErrorIs(platform::SystemErrorKind::kNotFound)) {
            *occupied = Occupied::kFree;
        }
        return RC_OK;
    }
    if (!file.GetSize(&size) || size != tail.size) {
        return RC_OK;
    }
    bool same = true;
    const ResultCode rc = tail.ForEachPiece([&](u32 length) {
        u32 got = 0;
        same = ReadWhole(file, tail.other.get(), length, &got) == RC_OK &&
               std::memcmp(tail.piece.get(), tail.other.get(), length) == 0;
        return same;
    });
    *occupied = same ? Occupied::kSameBytes : Occupied::kOtherBytes;
    return rc;
}

[[nodiscard]] ResultCode CopyTo(File& copy, Tail& tail) {
    assert(copy.IsOpen());
    bool written = true;
    const ResultCode rc = tail.ForEachPiece([&](u32 length) {
        u32 put = 0;
        written = copy.Write(tail.piece.get(), length, &put);
        return written;
    });
    if (rc != RC_OK) {
        return rc;
    }
    return written && copy.FlushToDisk() ? RC_OK : RC_SYSTEM_ERROR;
}

[[nodiscard]] ResultCode CopyUnder(const std::string& name, const std::string& storagePath,
                                   Tail& tail) {
    const std::string temporaryName = storagePath + ".damaged-tail.temporary";
    // Dropped: a process that ended half-way may have left one. If it stays, Create fails.
    (void)platform::RemoveFile(temporaryName);
    TemporaryFile temporary(temporaryName);
    if (ResultCode rc = temporary.Create(storagePath); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = CopyTo(temporary.Get(), tail); rc != RC_OK) {
        return rc;
    }
    temporary.Close();
    if (!platform::MoveFileReplacing(temporaryName, name)) {
        return RC_SYSTEM_ERROR;
    }
    temporary.Release();
    if (!FlushNamesBeside(name)) {
        return RC_SYSTEM_ERROR;
    }
    LOG_WARNING(kLogStorage, "Damaged tail is kept in file '%s';size %I64d", name.c_str(),
                tail.size);
    return RC_OK;
}

[[nodiscard]] ResultCode KeepUnderFreeName(const std::string& storagePath, Tail& tail) {
    if (tail.piece == nullptr || tail.other == nullptr) {
        return RC_NO_MEMORY;
    }
    for (u32 number = 0; number < kDamagedTailsMost; ++number) {
        const std::string name = DamagedTailName(storagePath, number);
        Occupied occupied = Occupied::kFree;
        if (ResultCode rc = LookAt(name, tail, &occupied); rc != RC_OK) {
            return rc;
        }
        if (occupied == Occupied::kSameBytes) {
            LOG_INFO(kLogStorage, "Damaged tail was kept before in file '%s'", name.c_str());
            return RC_OK;
        }
        if (occupied == Occupied::kFree) {
            return CopyUnder(name, storagePath, tail);
        }
    }
    platform::SetLastSystemError(
        platform::SystemErrorOf(platform::SystemErrorKind::kAlreadyExists));
    return RC_SYSTEM_ERROR;
}

}  // namespace

std::string DamagedTailName(const std::string& path, u32 number) {
    assert(number < kDamagedTailsMost);
    const std::string name = path + ".damaged-tail";
    return number == 0 ? name : name + "." + std::to_string(number);
}

ResultCode KeepDamagedTail(File& source, const std::string& storagePath, i64 from) {
    assert(source.IsOpen() && from >= 0);
    const std::string path = platform::FollowLink(storagePath);
    Tail tail{.source = source, .from = from, .size = 0};
    i64 fileSize = 0;
    ResultCode rc = RC_SYSTEM_ERROR;
    if (source.GetSize(&fileSize)) {
        tail.size = fileSize - from;
        rc = KeepUnderFreeName(path, tail);
    }
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Cannot keep damaged tail of file '%s';sys-err %r",
                       path.c_str(), LastSystemError());
    }
    return rc;
}

}  // namespace k9erepl
