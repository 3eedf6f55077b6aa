// Squeezing the storage file; see the header.
#include "solid/squeeze.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "platform/clock.h"
#include "platform/file_names.h"
#include "platform/memory.h"
#include "platform/system_error.h"
#include "solid/file_access.h"
#include "solid/storage_file_admin.h"
#include "solid/writer_lock.h"
#include "support/log.h"

namespace k9erepl {

using platform::LastSystemError;

namespace {

constexpr u32 kCopyPieceSize = 10 * 1024 * 1024;

[[nodiscard]] ResultCode FlushToDisk(platform::File& file) {
    if (!file.FlushToDisk()) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot flush file;sys-err %r",
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

// The first commit block of the new file: the one to which `kept`, the first kept commit block,
// links. It commits nothing below the clear revision. Its own clear revision must not be above that
// of `kept`, or the next load would stop there: a damaged file may have a negative one, which the
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

Squeeze::Squeeze(StorageFile& file, FileClear& clear, const SqueezeRequest& request)
    : m_file(file), m_clear(clear), m_request(request), m_names(file.Path()) {
    assert(file.IsOpen() && file.HasWriter());
    assert(request.copyFrom >= kFirstCommitOffset && request.commitOffset >= kFirstCommitOffset);
}

ResultCode Squeeze::Run(i64* shift) {
    const u32 startTicks = platform::TickCountMs();
    LOG_INFO(kLogStorage, "Performing file squeeze; rev %I64d", m_request.clearRev);
    // First, so that the old size includes everything queued.
    if (ResultCode rc = m_file.CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    m_oldDataSize = m_file.Writer().WritePos();
    if (ResultCode rc = m_clear.SetClearRev(m_request.clearRev); rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage, "Failed to set clear rev to solid storage;rev %I64d",
                       m_request.clearRev);
        return rc;
    }
    if (ResultCode rc = CopyAndReplace(); rc != RC_OK) {
        return rc;
    }
    const i64 newDataSize = kFirstItemOffset + m_written;
    if (ResultCode rc = m_file.Reopen(m_names.path, newDataSize); rc != RC_OK) {
        return rc;
    }
    *shift = kFirstItemOffset - m_request.copyFrom;
    LOG_INFO(kLogStorage,
             "File squeeze finished; it took %u ms; old data size: %I64d, new data size: %I64d",
             platform::TickCountMs() - startTicks, m_oldDataSize, newDataSize);
    return RC_OK;
}

// After a failure the temporary file is deleted, unless it has become the storage file.
ResultCode Squeeze::CopyAndReplace() {
    TFileHeader header;
    TCommitBlock kept;
    if (ResultCode rc = FlushAndReadStart(&header, &kept); rc != RC_OK) {
        return rc;
    }
    if (m_request.keepBackup) {
        if (ResultCode rc = CheckOldBackup(); rc != RC_OK) {
            return rc;
        }
    }
    const TCommitBlock first = PredecessorOf(kept, m_request.clearRev);
    TemporaryFile temporary(m_names.temporary);
    if (ResultCode rc = FillTemporary(temporary, header, first); rc != RC_OK) {
        return rc;
    }
    if (m_request.beforeReplace != nullptr) {
        if (ResultCode rc = m_request.beforeReplace(m_request.ctx); rc != RC_OK) {
            return rc;
        }
    }
    bool renamed = false;
    const ResultCode rc = Replace(temporary, &renamed);
    if (renamed) {
        temporary.Release();
    }
    if (m_written == 0) {
        // Without a copied commit block, what is written next links to the first one.
        m_file.State().lastCommitSequence = first.sequence;
    }
    return rc;
}

ResultCode Squeeze::FlushAndReadStart(TFileHeader* header, TCommitBlock* commitBlock) {
    const i64 commitOffset = m_request.commitOffset;
    platform::TrackedFile& file = m_file.Reader();
    if (ResultCode rc = m_file.CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = FlushToDisk(file.Raw()); rc != RC_OK) {
        return rc;
    }
    if (ResultCode rc = m_file.ReadHeader(header); rc != RC_OK) {
        return rc;
    }
    if (!file.Seek(commitOffset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to read commit block;offset %I64d, sys-err %r", commitOffset,
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    u32 got = 0;
    if (ReadWhole(file, commitBlock, kCommitBlockSize, &got) != RC_OK) {
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

// An older backup is replaced, unless another writer has it open. A backup that is only a second
// name of the storage file is locked by ourselves.
ResultCode Squeeze::CheckOldBackup() {
    assert(m_request.keepBackup);
    const std::string& backup = m_names.backup;
    platform::FileIdentity old;
    platform::FileIdentity own;
    if (!m_file.UsesLock() || !platform::GetIdentity(backup, &old) ||
        !m_file.Reader().Raw().GetIdentity(&own) || old == own) {
        return RC_OK;
    }
    platform::File file;
    return file.Open(backup.c_str(), {}) ? LockForWriting(file, backup, NoLocks::kSilent)
                                         : ResultCode{RC_OK};
}

// Makes the new file, whole and on the disk.
ResultCode Squeeze::FillTemporary(TemporaryFile& temporary, const TFileHeader& header,
                                  const TCommitBlock& first) {
    if (ResultCode rc = temporary.Create(m_names.path); rc != RC_OK) {
        return rc;
    }
    if (m_file.UsesLock()) {
        if (ResultCode rc = LockForWriting(temporary.Get(), m_names.temporary, NoLocks::kSilent);
            rc != RC_OK) {
            return rc;
        }
    }
    i64 fileSize = m_file.State().fileInitialSize;
    if (ResultCode rc = InitNewFile(temporary.Get(), header, first, &fileSize); rc != RC_OK) {
        return rc;
    }
    return CopyKept(temporary.Get());
}

ResultCode Squeeze::CopyKept(platform::File& temporary) {
    const i64 from = m_request.copyFrom;
    const i64 size = m_file.Writer().WritePos() - from;
    assert(size >= 0 && m_written == 0);
    LOG_INFO(kLogStorage, "Copying data to temporary file; from offset %I64d; size to write %I64d",
             from, size);
    const platform::MemoryBuffer buffer = platform::AllocBuffer(kCopyPieceSize);
    if (buffer == nullptr) {
        return RC_NO_MEMORY;
    }
    while (m_written < size) {
        const u32 piece = static_cast<u32>(std::min(size - m_written, i64{kCopyPieceSize}));
        if (ResultCode rc = CopyPiece(temporary, buffer.get(), piece); rc != RC_OK) {
            return rc;
        }
        LOG_INFO(kLogStorage, "Written %I64d bytes", m_written);
    }
    if (ResultCode rc = FlushToDisk(temporary); rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "Copying data to temporary file finished");
    return RC_OK;
}

ResultCode Squeeze::CopyPiece(platform::File& temporary, u8* buffer, u32 size) {
    assert(size != 0 && size <= kCopyPieceSize);
    const i64 offset = m_request.copyFrom + m_written;
    platform::TrackedFile& file = m_file.Reader();
    if (!file.Seek(offset)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Cannot seek to read file;offset %I64d, sys-err %r", offset,
                       LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    u32 got = 0;
    if (ReadWhole(file, buffer, size, &got) != RC_OK) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Failed to read block;sys-err %r,offset %I64d",
                       LastSystemError(), offset);
        return RC_SYSTEM_ERROR;
    }
    u32 put = 0;
    if (!temporary.Write(buffer, size, &put)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage,
                       "Failed to write block;sys-err %r,offset %I64d", LastSystemError(), offset);
        return RC_SYSTEM_ERROR;
    }
    temporary.StartFlush(kFirstItemOffset + m_written, size);
    m_written += size;
    return RC_OK;
}

// Where open files can be renamed, the old file stays locked until its name leads to the new one,
// which is locked already. Elsewhere nothing may be open while names change: a second writer may
// come in between, and the moves fail while it has the old file open, or the reopening finds the
// new one locked.
ResultCode Squeeze::Replace(TemporaryFile& temporary, bool* renamed) {
    assert(!*renamed);
    const bool keepBackup = m_request.keepBackup;
    m_file.ItemsMoved();
    platform::File oldLock = m_file.CloseReader();
    platform::File newLock = temporary.TakeFile();
    ResultCode rc = keepBackup ? CutOldFile() : ResultCode{RC_OK};
    m_file.Writer().CloseFile();
    if (!platform::kOpenFilesCanBeRenamed || !newLock.IsLocked()) {
        oldLock.Close();
        newLock.Close();
    }
    if (rc == RC_OK) {
        rc = keepBackup ? BackupAndRename(m_names, renamed) : RenameTemp(m_names, renamed);
    }
    if (rc == RC_OK) {
        m_file.HoldLock(std::move(newLock));
    }
    return rc;
}

// The backup must hold what the file held before the squeeze recorded its clear revision.
ResultCode Squeeze::CutOldFile() {
    assert(m_oldDataSize > 0);
    platform::File& file = m_file.Writer().BorrowFile();
    if (!StorageWriter::CutFile(file, m_oldDataSize)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogStorage, "Cannot truncate file: '%s'; sys-err: %r",
                       m_names.path.c_str(), LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    return FlushToDisk(file);
}

}  // namespace k9erepl
