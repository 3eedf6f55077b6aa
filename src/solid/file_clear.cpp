// The clear revision, and starting the file over; see the header.
#include "solid/file_clear.h"

#include <algorithm>
#include <cassert>

#include "platform/clock.h"
#include "solid/storage_file_admin.h"
#include "support/log.h"

namespace k9erepl {

ResultCode FileClear::SetClearRev(i64 rev) {
    if (!m_file.IsOpen() || !m_file.HasWriter()) {
        return RC_NO_WRITER;
    }
    StorageFileState& state = m_file.State();
    StorageWriter& writer = m_file.Writer();
    const i64 before = state.clearRev;
    const i64 position = writer.WritePos();
    if (ResultCode rc = writer.BeginTransaction(); rc != RC_OK) {
        return rc;
    }
    const i64 lastFlushed = state.lastFlushedRev;
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), lastFlushed);
    // The writer copies the clear revision into the block. It must never fall: an earlier clear may
    // have reached the file although it failed for the client, and behind that a lower one would
    // end the next load.
    state.clearRev = std::max(rev, before);
    ResultCode rc = m_writes.WriteItems(reinterpret_cast<u8*>(&block), kCommitBlockSize, &block,
                                        nullptr, lastFlushed, nullptr);
    if (rc != RC_OK) {
        // Nothing was written or queued.
        state.clearRev = before;
    } else if (rc = writer.FlushFile(); rc != RC_OK) {
        // The next commit block would link to this one. With force_flush, a block that is linked to
        // must not be one that the disk may still lose, so this one is taken back. That is not
        // possible when the notification wrote something behind it: there, a clear revision that
        // falls would end the next load.
        if (writer.WritePos() <= position + kCommitBlockSize) {
            // Dropped: the failed flush is the result, and the next write moves the pointer.
            (void)writer.Rollback();
            state.clearRev = before;
        }
    }
    m_file.InvalidateReads();
    if (rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "Set clear rev %I64d", rev);
    return RC_OK;
}

ResultCode FileClear::TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev) {
    if (ResultCode rc = m_file.CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    m_tail.KeepBeforeWriting();
    m_file.SetInUse(true);
    m_file.ItemsMoved();
    StorageFileState& state = m_file.State();
    StorageWriter& writer = m_file.Writer();
    TFileHeader header = NewFileHeader();
    header.lifenum = lifenum;
    header.clearOldRev = clearOldRev;
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), rev);
    block.prevSequence = state.lastCommitSequence;
    block.clearRev = rev;
    i64 fileSize = state.fileInitialSize;
    if (ResultCode rc = InitNewFile(writer.BorrowFile(), header, block, &fileSize); rc != RC_OK) {
        return rc;
    }
    // Old items may lie behind the new beginning, and must not be taken for live ones when the
    // data reaches up to them.
    if (ResultCode rc = writer.SetWritePos(kFirstItemOffset, false, true); rc != RC_OK) {
        return rc;
    }
    state.fileSize = fileSize;
    state.lastCommitSequence = block.sequence;
    state.clearRev = rev;
    state.lastFlushedRev = 0;
    m_file.SetLastWrittenRev(0);
    m_file.InvalidateReads();
    LOG_INFO(kLogStorage, "File was truncated;clear rev %I64d", rev);
    return RC_OK;
}

}  // namespace k9erepl
