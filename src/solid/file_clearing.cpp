// Taking content out of service without moving any of it: the clear revision, and starting the
// file over.
#include <algorithm>

#include "platform/clock.h"
#include "solid/solid_storage.h"
#include "solid/storage_file_admin.h"
#include "support/log.h"

namespace k9erepl {

u32 CSolidStorage::CompleteAsyncTasks() {
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const u32 rc = m_writer->CompleteAsyncTasks();
    if (rc != RC_OK) {
        LOG_ERROR_CODE(rc, kLogStorage,
                       "Storage writer failed to process wait for finish write operations");
    }
    return rc;
}

u32 CSolidStorage::WaitReleaseBlock() {
    return m_writer == nullptr ? RC_NO_WRITER : m_writer->WaitReleaseBlock();
}

u32 CSolidStorage::SetClearRev(i64 rev) {
    if (!IsOpen() || m_writer == nullptr) {
        return RC_NO_WRITER;
    }
    const i64 before = m_state.clearRev;
    const i64 position = m_writer->WritePos();
    if (u32 rc = m_writer->BeginTransaction(); rc != RC_OK) {
        return rc;
    }
    const i64 lastFlushed = m_state.lastFlushedRev;
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), lastFlushed);
    // The writer copies it into the block. It never falls: behind a clear that came to the file
    // although it failed for the client, a lower one would end the next load.
    m_state.clearRev = std::max(rev, before);
    u32 rc = WriteItems(reinterpret_cast<u8*>(&block), kCommitBlockSize, &block, nullptr,
                        lastFlushed, nullptr);
    if (rc != RC_OK) {
        // Nothing was written or queued.
        m_state.clearRev = before;
    } else if (rc = m_writer->FlushFile(); rc != RC_OK) {
        // What is written behind this block links to it: with force_flush it must not be the only
        // one that the disk may still lose. What the notification wrote behind it is not taken
        // back, and a clear revision that falls would end the next load there.
        if (m_writer->WritePos() <= position + kCommitBlockSize) {
            m_writer->Rollback();
            m_state.clearRev = before;
        }
    }
    InvalidateReads();
    if (rc != RC_OK) {
        return rc;
    }
    LOG_INFO(kLogStorage, "Set clear rev %I64d", rev);
    return RC_OK;
}

u32 CSolidStorage::TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev) {
    if (u32 rc = CompleteAsyncTasks(); rc != RC_OK) {
        return rc;
    }
    KeepTailBeforeWriting();
    m_inUse = true;
    ++m_layoutGeneration;
    TFileHeader header = NewFileHeader();
    header.lifenum = lifenum;
    header.clearOldRev = clearOldRev;
    TCommitBlock block = NewCommitBlock(platform::TimeStampCounter(), rev);
    block.prevSequence = m_state.lastCommitSequence;
    block.clearRev = rev;
    i64 fileSize = m_state.fileInitialSize;
    if (u32 rc = InitNewFile(m_writer->BorrowFile(), header, block, &fileSize); rc != RC_OK) {
        return rc;
    }
    // Old items may lie behind the new beginning, and must not be taken for live ones when the
    // data reaches up to them.
    if (u32 rc = m_writer->SetWritePos(kFirstItemOffset, false, true); rc != RC_OK) {
        return rc;
    }
    m_state.fileSize = fileSize;
    m_state.lastCommitSequence = block.sequence;
    m_state.clearRev = rev;
    m_state.lastFlushedRev = 0;
    m_lastWrittenRev = 0;
    InvalidateReads();
    LOG_INFO(kLogStorage, "File was truncated;clear rev %I64d", rev);
    return RC_OK;
}

}  // namespace k9erepl
