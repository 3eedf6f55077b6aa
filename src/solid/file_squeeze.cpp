// The squeeze: what is kept of the storage file moves to a new file, which takes the old one's
// place. Everything is on the disk before a name changes.
#include <algorithm>
#include <cassert>
#include <new>

#include "platform/clock.h"
#include "platform/file_names.h"
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/file_replace.h"
#include "solid/solid_storage.h"
#include "solid/storage_file_admin.h"
#include "solid/writer_lock.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

namespace {

constexpr u32 kCopyPieceSize = 10 * 1024 * 1024;
constexpr i64 kNoBackup = -1;

u32 FlushToDisk(platform::File& file) {
    if (!file.FlushToDisk()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot flush file;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

// The first commit block of the new file: the one that `kept`, the first kept commit block, links
// to. It commits nothing below the clear revision. Its own clear revision must not be above that of
// `kept`, or the next load would stop there: a damaged file may have a negative one, which the
// writer then carried on.
TCommitBlock PredecessorOf(const TCommitBlock& kept, i64 clearRev) {
    TCommitBlock block = kept;
    block.sequence = kept.prevSequence;
    block.prevSequence = 0;
    block.clearRev = std::min<i64>(0, kept.clearRev);
    block.commitRev = clearRev;
    return block;
}

}  // namespace

u32 CSolidStorage::Squeeze(const SqueezeRequest& request, i64* shift) {
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    try {
        return SqueezeFile(request, SqueezeNames(m_state.path), shift);
    } catch (const std::bad_alloc&) {
        return RC_NO_MEMORY;
    }
}

u32 CSolidStorage::SqueezeFile(const SqueezeRequest& request, const SqueezeNames& names,
                               i64* shift) {
    const u32 startTicks = platform::TickCountMs();
    LOG_INFO(kLogStorage, "Performing file squeeze; rev %I64d", request.clearRev);
    // First, so that the old size is that of everything queued.
    if (u32 rc = CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    const i64 oldDataSize = m_writer->WritePos();
    if (u32 rc = SetClearRev(request.clearRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to set clear rev to solid storage;rev %I64d",
                       request.clearRev);
        return rc;
    }
    i64 written = 0;
    if (u32 rc = CopyAndReplace(request, names, oldDataSize, &written); rc != RC_OK) {
        return rc;
    }
    const i64 newDataSize = kFirstItemOffset + written;
    if (u32 rc = OpenSqueezed(names.path, newDataSize); rc != RC_OK) {
        m_file.Close();
        m_lockHolder.Close();
        m_writer->CloseFile();
        return rc;
    }
    *shift = kFirstItemOffset - request.copyFrom;
    LOG_INFO(kLogStorage,
             "File squeeze finished; it took %u ms; old data size: %I64d, new data size: %I64d",
             platform::TickCountMs() - startTicks, oldDataSize, newDataSize);
    return RC_OK;
}

// On the way out by failure the temporary file is deleted, unless it is the storage file by then.
u32 CSolidStorage::CopyAndReplace(const SqueezeRequest& request, const SqueezeNames& names,
                                  i64 oldDataSize, i64* written) {
    TFileHeader header;
    TCommitBlock kept;
    if (u32 rc = FlushAndReadStart(request.commitOffset, &header, &kept); rc != RC_OK) {
        return rc;
    }
    if (request.keepBackup) {
        if (u32 rc = CheckOldBackup(names.backup); rc != RC_OK) {
            return rc;
        }
    }
    const TCommitBlock first = PredecessorOf(kept, request.clearRev);
    TemporaryFile temporary(names.temporary);
    if (u32 rc = temporary.Create(names.path); rc != RC_OK) {
        return rc;
    }
    if (m_fileLock) {
        if (u32 rc = LockForWriting(temporary.Get(), names.temporary, NoLocks::kSilent);
            rc != RC_OK) {
            return rc;
        }
    }
    i64 fileSize = m_state.fileInitialSize;
    if (u32 rc = InitNewFile(temporary.Get(), header, first, &fileSize); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = CopyToTemp(temporary.Get(), request.copyFrom, written); rc != RC_OK) {
        return rc;
    }
    if (request.beforeReplace != nullptr) {
        if (u32 rc = request.beforeReplace(request.ctx); rc != RC_OK) {
            return rc;
        }
    }
    const i64 backupSize = request.keepBackup ? oldDataSize : kNoBackup;
    bool renamed = false;
    const u32 rc = Replace(backupSize, names, temporary, &renamed);
    if (renamed) {
        temporary.Release();
    }
    if (*written == 0) {
        // Without a copied commit block, what is written next links to the first one.
        m_state.lastCommitSequence = first.sequence;
    }
    return rc;
}

// An older backup makes room, unless somebody writes to it. One that is still the storage file,
// under a second name, is our own.
u32 CSolidStorage::CheckOldBackup(const std::string& backup) {
    platform::FileIdentity old;
    platform::FileIdentity own;
    if (!m_fileLock || !platform::GetIdentity(backup, &old) || !m_file.Raw().GetIdentity(&own) ||
        old == own) {
        return RC_OK;
    }
    platform::File file;
    return file.Open(backup.c_str(), {}) ? LockForWriting(file, backup, NoLocks::kSilent)
                                         : u32{RC_OK};
}

u32 CSolidStorage::FlushAndReadStart(i64 commitOffset, TFileHeader* header,
                                     TCommitBlock* commitBlock) {
    if (u32 rc = CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = FlushToDisk(m_file.Raw()); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = ReadHeader(header); rc != RC_OK) {
        return rc;
    }
    if (!m_file.Seek(commitOffset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to read commit block;offset %I64d, sys-err %r", commitOffset,
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    u32 got = 0;
    if (ReadWhole(m_file, commitBlock, kCommitBlockSize, &got) != RC_OK) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       LastSystemError(), commitOffset);
        return RC_SYSTEM_ERROR;
    }
    if (commitBlock->signature != kCommitSignature) {
        LOG_ERROR_CODE(RC_BAD_DATA, kLogStorage, "Wrong signature (0x%8.8X) found, offset %I64d",
                       u32{commitBlock->signature}, commitOffset);
        return RC_BAD_DATA;
    }
    return RC_OK;
}

u32 CSolidStorage::CopyToTemp(platform::File& temporary, i64 from, i64* written) {
    const i64 size = m_writer->WritePos() - from;
    assert(size >= 0);
    *written = 0;
    LOG_INFO(kLogStorage, "Copying data to temporary file; from offset %I64d; size to write %I64d",
             from, size);
    const platform::MemoryBuffer buffer = platform::AllocBuffer(kCopyPieceSize);
    if (buffer == nullptr) {
        return RC_NO_MEMORY;
    }
    while (*written < size) {
        const i64 offset = from + *written;
        const u32 piece = static_cast<u32>(std::min(size - *written, i64{kCopyPieceSize}));
        if (!m_file.Seek(offset)) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Cannot seek to read file;offset %I64d, sys-err %r", offset,
                           LastSystemError());
            return RC_SYSTEM_ERROR;
        }
        u32 got = 0;
        if (ReadWhole(m_file, buffer.get(), piece, &got) != RC_OK) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Failed to read block;sys-err %r,offset %I64d", LastSystemError(),
                           offset);
            return RC_SYSTEM_ERROR;
        }
        u32 put = 0;
        if (!temporary.Write(buffer.get(), piece, &put)) {
            LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                           "Failed to write block;sys-err %r,offset %I64d", LastSystemError(),
                           offset);
            return RC_SYSTEM_ERROR;
        }
        temporary.StartFlush(kFirstItemOffset + *written, piece);
        *written += piece;
        LOG_INFO(kLogStorage, "Written %I64d bytes", *written);
    }
    if (u32 rc = FlushToDisk(temporary); rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "Copying data to temporary file finished");
    return RC_OK;
}

// Where open files can be renamed, the old file stays locked until its name leads to the new one,
// which is locked already. Elsewhere nothing may be open while names change: a second writer may
// come in between, and the moves fail while it has the old file open, or the reopening finds the
// new one locked.
u32 CSolidStorage::Replace(i64 backupSize, const SqueezeNames& names, TemporaryFile& temporary,
                           bool* renamed) {
    ++m_layoutGeneration;
    platform::File oldLock = m_file.IsLocked() ? m_file.Release() : std::move(m_lockHolder);
    platform::File newLock = temporary.TakeFile();
    m_file.Close();
    u32 rc = backupSize == kNoBackup ? u32{RC_OK} : CutTo(backupSize, names.path);
    m_writer->CloseFile();
    if (!platform::kOpenFilesCanBeRenamed || !newLock.IsLocked()) {
        oldLock.Close();
        newLock.Close();
    }
    if (rc == RC_OK) {
        rc = backupSize == kNoBackup ? RenameTemp(names, renamed) : BackupAndRename(names, renamed);
    }
    if (rc == RC_OK) {
        m_lockHolder = std::move(newLock);
    }
    return rc;
}

// The backup shall hold what the file held before the squeeze recorded its clear revision.
u32 CSolidStorage::CutTo(i64 dataSize, const std::string& path) {
    platform::File& file = m_writer->BorrowFile();
    if (!StorageWriter::CutFile(file, dataSize)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot truncate file: '%s'; sys-err: %r",
                       path.c_str(), LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return FlushToDisk(file);
}

u32 CSolidStorage::OpenSqueezed(const std::string& path, i64 writePos) {
    platform::File opened;
    if (u32 rc = OpenAndCheckFile(path, {.writeThrough = m_state.writeThrough}, &opened);
        rc != RC_OK) {
        return rc;
    }
    m_file = platform::TrackedFile(std::move(opened), kFileHeaderSize);
    if (m_fileLock && !m_lockHolder.IsOpen()) {
        if (u32 rc = LockForWriting(m_file.Raw(), path, NoLocks::kSilent); rc != RC_OK) {
            return rc;
        }
    }
    i64 size = 0;
    if (!m_file.Raw().GetSize(&size)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot get file size;sys-err %r,file path '%s'", LastSystemError(),
                       path.c_str());
        return RC_SYSTEM_ERROR;
    }
    m_state.fileSize = size;
    if (u32 rc = m_writer->ReopenFile(path, m_state.writeThrough); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = m_writer->SetWritePos(writePos, true); rc != RC_OK) {
        return rc;
    }
    InvalidateReads();
    return RC_OK;
}

}  // namespace k9erepl
