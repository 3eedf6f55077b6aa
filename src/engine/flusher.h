// Flushing: moving committed records from the memory blocks into the storage file, each flush
// closed by one commit block, and telling the client. The storage object owns one; commits, the
// idle call, clears and the end of the storage flush through it.
#ifndef K9EREPL_ENGINE_FLUSHER_H
#define K9EREPL_ENGINE_FLUSHER_H

#include <k9erepl/storage.h>

#include <atomic>
#include <vector>

#include "engine/block_store.h"
#include "engine/flush_policy.h"
#include "engine/flush_run.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/flush_callback.h"
#include "support/timing_set.h"

namespace k9erepl {

// A failed flush leaves no trace in memory, and can be tried again. One whose bytes may still be
// written by a thread, or in whose middle a callback threw, breaks the storage.
//
// The parameter `limit` is the last revision that is committed. Guarded by the storage's lock,
// except what says otherwise.
class Flusher {
  public:
    Flusher(const OpenSettings& settings, StorageStatus& status, BlockStore& blocks,
            CSolidStorage& file)
        : m_settings(settings), m_status(status), m_blocks(blocks), m_file(file) {}
    Flusher(const Flusher&) = delete;
    Flusher& operator=(const Flusher&) = delete;

    // Once, when the storage is opened. Throws std::bad_alloc.
    void RegisterTimes();
    // Logs the times and forgets what was counted and is pending.
    void Reset();

    // --- The client's callbacks. Need no lock.
    void SetOnFlush(K9eReplFlushCb cb, void* ctx) { m_onFlush.Set(cb, ctx); }
    [[nodiscard]] u32 SetOnWriteToFile(K9eReplFlushCb cb, void* ctx);
    // Calls neither of them from now on.
    void Silence();

    // --- When to flush
    // A transaction with `dataSize` bytes of records was committed to the file's storage.
    void CountCommit(u64 dataSize) { m_policy.CountCommit(m_settings.flushMode, dataSize); }
    // The flush mode asks for a flush. Needs no lock; a caller without it asks again under it.
    bool IsDue() const { return m_policy.FlushNeeded(m_settings); }
    // The same, and nothing is being done to the file.
    bool FlushNeeded() const { return m_status.FileIsIdle() && IsDue(); }
    // The time-out begins anew. Needs no lock.
    void RecordFlushTime() { m_policy.RecordFlushTime(); }
    // No flush is due any more, whatever was counted.
    void ForgetCommits() { m_policy.Clear(); }

    // --- Flushing
    // Does nothing while the file is being worked on, and in a storage without a file.
    [[nodiscard]] u32 Flush(i64 limit);
    // REQUIRES: the file is not being written.
    [[nodiscard]] u32 FlushNow(i64 limit);
    // The idle call's flush: timed, and a failure leaves the storage in kFlushFailed.
    [[nodiscard]] u32 FlushOnIdle(i64 limit);
    // For a flush that a commit or the idle call began: logs the failure `rc`, which it returns,
    // and leaves the storage in kFlushFailed.
    [[nodiscard]] u32 FailAtTop(u32 rc);
    // In OnWriteToFile, called in the middle of a flush or a clear whose flush to disk follows and
    // may fail: what was committed meanwhile would go with it. The asynchronous writer calls
    // OnWriteToFile on its own thread, which never gets here while a flush is under way.
    bool MayStillFail() const { return m_status.FileIsBeingWritten() && m_file.ForcesFlushes(); }
    // Zeroes what failed flushes left in the file, which a load could take for committed. Does
    // nothing while the file is being worked on.
    void ClearUndoneWrites();

    // A storage without a file: tells both callbacks about a commit up to `lastRev`.
    void NotifyInMemory(i64 lastRev);

    // Shrinks the cache if the last flush left more blocks than it may keep. No failure, which is
    // logged: the next commit tries again.
    void ShrinkCacheIfPending();

  private:
    friend struct StorageAccess;  // the tests' eyes

    // One change that a failed flush has to take back.
    struct Piece {
        K9eReplBlock* block;
        u64 flushedEndBefore;
        std::atomic<i64>* fileOffset;  // null unless this flush filled it in
    };

    [[nodiscard]] u32 FlushTimed(i64 limit);
    [[nodiscard]] u32 FlushToFile(i64 limit);
    [[nodiscard]] u32 WriteRuns(i64 limit, i64* lastWritten);
    [[nodiscard]] u32 WriteRun(i64 firstRev, K9eReplBlock& block, const FlushRun& run);
    [[nodiscard]] u32 RememberPiece(K9eReplBlock& block, std::atomic<i64>& fileOffset);
    [[nodiscard]] u32 WriteCommitBlock(i64 lastRev);
    [[nodiscard]] u32 CommitToFile();
    void Undo();
    void NotifyFlushed(i64 lastRev);
    [[nodiscard]] u32 ShrinkCache();

    const OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;

    // --- Self-synchronised
    FlushCallback m_onFlush;
    FlushCallback m_onWriteToFile;  // called here in a storage without a file only
    FlushPolicy m_policy;

    // --- Guarded by the storage's lock
    TimingSet m_timing;
    u32 m_timeFlush = 0;  // counters of m_timing, as those below
    u32 m_timeOnFlushCb = 0;
    u32 m_timeForcedFlush = 0;
    u32 m_timeFlushOnIdle = 0;
    u32 m_timeWriteData1 = 0;
    u32 m_timeWriteData2 = 0;
    u32 m_flushDepth = 0;    // flushes that have not returned; a clear inside OnFlush flushes again
    u32 m_onFlushDepth = 0;  // calls of OnFlush that have not returned
    bool m_shrinkPending = false;  // the last flush left more blocks than the cache may keep
    std::vector<Piece> m_pieces;   // kept between flushes for its memory
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSHER_H
