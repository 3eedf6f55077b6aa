// Flushing: moves committed records from the memory blocks into the storage file, closes each flush
// with one commit block, and tells the client. The storage object owns one; commits, the idle call,
// clears and the end of the storage flush through it. docs/architecture.md says what happens when a
// flush fails ("A flush that fails").
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
#include "support/result.h"
#include "support/timing_set.h"

namespace k9erepl {

// A failed flush leaves no trace in memory and can be tried again. A flush breaks the storage if a
// thread may still write its bytes after it failed, or if a callback threw in the middle of it.
//
// The parameter `limit` is the last committed revision: nothing above it is written. Everything is
// guarded by the storage's lock unless a comment says otherwise. The objects that the constructor
// gets outlive this one.
class Flusher {
  public:
    Flusher(const OpenSettings& settings, StorageStatus& status, BlockStore& blocks,
            CSolidStorage& file)
        : m_settings(settings), m_status(status), m_blocks(blocks), m_file(file) {}
    Flusher(const Flusher&) = delete;
    Flusher& operator=(const Flusher&) = delete;

    // Registers the stopwatches. To be called once, when the storage is opened.
    // Throws std::bad_alloc.
    void RegisterTimes();
    // Logs the times, sets the commit counters to 0 and forgets a pending shrinking of the cache.
    void Reset();

    // --- The client's callbacks. Need no lock.
    // OnFlush is called after a flush, under the storage's lock, with the highest flushed revision.
    // Null unsets it.
    void SetOnFlush(K9eReplFlushCb cb, void* ctx) { m_onFlush.Set(cb, ctx); }
    // OnWriteToFile is called for each commit block written, on the thread that writes it; the
    // storage file keeps it (FlushCallback). Null unsets it. Never fails.
    [[nodiscard]] ResultCode SetOnWriteToFile(K9eReplFlushCb cb, void* ctx);
    // Unsets both callbacks of a storage with a file, for a flush during which clients must not
    // commit more.
    void Silence();

    // --- When to flush
    // A transaction with `dataSize` bytes of records, heads included, was committed.
    void CountCommit(u64 dataSize) { m_policy.CountCommit(m_settings.flushMode, dataSize); }
    // True when the flush mode asks for a flush. Needs no lock, but a caller without it must ask
    // again under the lock.
    bool IsDue() const { return m_policy.FlushNeeded(m_settings); }
    // True when the flush mode asks for a flush and nothing is being done to the file.
    bool FlushNeeded() const { return m_status.FileIsIdle() && IsDue(); }
    // The same for a commit; see FlushPolicy::FlushNeededAtCommit.
    bool FlushNeededAtCommit() const {
        return m_status.FileIsIdle() && m_policy.FlushNeededAtCommit(m_settings);
    }
    // Starts the time-out of the setting flush_timeout again. Needs no lock.
    void RecordFlushTime() { m_policy.RecordFlushTime(); }
    // Sets the commit counters to 0, so no flush is due.
    void ForgetCommits() { m_policy.Clear(); }

    // --- Flushing
    // Flushes everything up to `limit` that is not in the file, and calls OnFlush if anything was
    // written. Does nothing, with RC_OK, while something is being done to the file, and in a
    // storage without a file. Errors, logged: those of the storage file; RC_BAD_DATA for a damaged
    // block; RC_NO_MEMORY.
    [[nodiscard]] ResultCode Flush(i64 limit);
    // Does the same, but also while OnFlush runs: a clear that OnFlush asks for flushes first.
    // REQUIRES: the file is not being written.
    [[nodiscard]] ResultCode FlushNow(i64 limit);
    // The flush of the idle call: it has a stopwatch of its own, and a failure leaves the storage
    // in kFlushFailed.
    // REQUIRES: the storage has a file; nothing is being done to it.
    [[nodiscard]] ResultCode FlushOnIdle(i64 limit);
    // To be called when a flush that a commit or the idle call began has failed with `rc`: logs
    // that, leaves the storage in kFlushFailed unless it is broken, and returns `rc`.
    [[nodiscard]] ResultCode FailAtTop(ResultCode rc);
    // True in OnWriteToFile when it is called in the middle of a flush or clear that still has to
    // flush to the disk, which may fail. A commit there is refused, because the failure would take
    // it back. The asynchronous writer calls OnWriteToFile on its own thread, which cannot get the
    // storage's lock, and so cannot ask here, while a flush is under way.
    bool MayStillFail() const { return m_status.FileIsBeingWritten() && m_file.ForcesFlushes(); }
    // Zeroes what failed flushes left in the file, which a load could take for committed. Does
    // nothing while something is being done to the file, and in a storage without a file. A failure
    // is logged; the next write tries again.
    void ClearUndoneWrites();

    // For a storage without a file: tells both callbacks about a commit up to `lastRev`.
    // REQUIRES: the storage has no file.
    void NotifyInMemory(i64 lastRev);

    // Shrinks the cache to the number of blocks that the setting cache_type allows if the last
    // flush left more. A failure is logged and changes nothing for the commit; the next one tries
    // again.
    void ShrinkCacheIfPending() {
        if (m_shrinkPending && m_settings.MayEvict()) {
            // Dropped: a failure is logged, the commit has succeeded, and the next one tries again.
            (void)ShrinkCache();
        }
    }

  private:
    // Lets the tests look inside.
    friend struct StorageAccess;

    // One change that a failed flush has to take back. The pointers are valid because nothing may
    // move blocks or index entries while the file is being written.
    struct Piece {
        K9eReplBlock* block;           // never null
        u64 flushedEndBefore;          // the block's flushedEnd before the flush, in bytes
        std::atomic<i64>* fileOffset;  // null unless this flush fills it in
    };

    // The steps of a flush, from the outside in. Times the whole flush, for which only the
    // outermost of nested flushes counts.
    [[nodiscard]] ResultCode FlushTimed(i64 limit);
    // Opens a transaction of the file, writes, commits, counts, notifies; takes all back after a
    // failure.
    [[nodiscard]] ResultCode FlushToFile(i64 limit);
    // Writes all runs and the commit block. *lastWritten receives the highest revision written; it
    // stays 0 when there was nothing to write.
    [[nodiscard]] ResultCode WriteRuns(i64 limit, i64* lastWritten);
    // Writes the run of one block, which has the key `firstRev`, with the commit block if the run
    // closes.
    [[nodiscard]] ResultCode WriteRun(i64 firstRev, K9eReplBlock& block, const FlushRun& run);
    // Remembers what Undo has to restore. Errors, logged: RC_NO_MEMORY.
    [[nodiscard]] ResultCode RememberPiece(K9eReplBlock& block, std::atomic<i64>& fileOffset);
    // Writes a commit block for `lastRev` that could not be built behind the last run.
    [[nodiscard]] ResultCode WriteCommitBlock(i64 lastRev);
    // Ends the file's transaction: with force_flush, everything written is then on the disk.
    [[nodiscard]] ResultCode CommitToFile();
    // Goes back to the state before the flush, in the file's writer and in memory.
    void Undo();
    // Calls OnFlush with `lastRev` if it is set.
    void NotifyFlushed(i64 lastRev);
    // Errors: as BlockStore::Shrink.
    [[nodiscard]] ResultCode ShrinkCache();

    const OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;

    // --- Self-synchronised
    FlushCallback m_onFlush;  // empty until a client sets it
    // Called from here only in a storage without a file; else the storage file's writer calls its
    // own.
    FlushCallback m_onWriteToFile;
    // Counts commits and says when to flush; counts nothing in a storage without a file.
    FlushPolicy m_policy;

    // --- Guarded by the storage's lock
    TimingSet m_timing;
    // Numbers of the stopwatches in m_timing; all 0 before RegisterTimes.
    u32 m_timeFlush = 0;
    u32 m_timeOnFlushCb = 0;
    u32 m_timeForcedFlush = 0;
    u32 m_timeFlushOnIdle = 0;
    u32 m_timeWriteData1 = 0;
    u32 m_timeWriteData2 = 0;
    // Flushes that have not returned: a clear inside OnFlush flushes again. 0: none.
    u32 m_flushDepth = 0;
    // Calls of OnFlush that have not returned; 0: none.
    u32 m_onFlushDepth = 0;
    // The last flush left more blocks in memory than the setting cache_type allows.
    bool m_shrinkPending = false;
    // The changes of the flush that is under way, in the order in which they were made. Not freed
    // between flushes, so that a flush rarely allocates.
    std::vector<Piece> m_pieces;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSHER_H
