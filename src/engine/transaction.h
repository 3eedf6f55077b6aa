// The client's transaction: how deep it is nested, where it began, how it goes back there, and what
// follows its commit. The storage object owns one. A clear inside a callback may move the place
// where the transaction began.
#ifndef K9EREPL_ENGINE_TRANSACTION_H
#define K9EREPL_ENGINE_TRANSACTION_H

#include <k9erepl/storage.h>

#include <cassert>

#include "engine/block_store.h"
#include "engine/flusher.h"
#include "engine/index_keeper.h"
#include "engine/open_settings.h"
#include "engine/revision.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// Guarded by the storage's lock. A call that the storage's state forbids is logged and answers
// RC_WRONG_STATE. There is one transaction per storage, whichever thread calls; nested calls of
// Begin only count.
class Transaction {
  public:
    Transaction(const OpenSettings& settings, StorageStatus& status, BlockStore& blocks,
                CSolidStorage& file, IndexKeeper& index, Flusher& flusher)
        : m_settings(settings),
          m_status(status),
          m_blocks(blocks),
          m_file(file),
          m_index(index),
          m_flusher(flusher) {}
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // True between the outermost Begin and its Commit or Rollback.
    bool IsOpen() const { return m_depth > 0; }
    // The last revision that no open transaction can take back; a flush may go up to it.
    i64 LastCommittedRev() const { return (IsOpen() ? m_start.rev : m_blocks.NextRev()) - 1; }

    // --- The calls of that name; see K9eReplStorageBeginTransaction and those that follow it

    // Opens a transaction or nests one level deeper. A storage file that cannot begin breaks the
    // storage.
    [[nodiscard]] ResultCode Begin() {
        if (ResultCode rc = m_status.RefuseUnless(MayChange(), "Failed to begin trans");
            rc != RC_OK) {
            return rc;
        }
        if (!IsOpen()) {
            return BeginOutermost();
        }
        if (m_rolledBack) {
            return RC_BEGIN_AFTER_ROLLBACK;
        }
        ++m_depth;
        return RC_OK;
    }
    // Gives `rec` the next revision and copies it into memory. Outside of a transaction the record
    // gets one of its own. A revision stays used up when its record could not be placed inside a
    // transaction.
    [[nodiscard]] ResultCode Insert(K9eReplRec* rec) {
        if (ResultCode rc = m_status.RefuseUnless(MayChange(), "Failed to insert"); rc != RC_OK) {
            return rc;
        }
        return InsertAt(rec, m_blocks.NextRev());
    }
    // Does the same with the revision that `rec` has. RC_INVALID_ARG, logged, when that is below
    // the next one.
    [[nodiscard]] ResultCode InsertP(K9eReplRec* rec);
    // Ends one level. At the outermost level counts the transaction, and flushes if a flush is due.
    // When that flush fails, the transaction stays open, to be committed again or rolled back.
    [[nodiscard]] ResultCode Commit();
    // Ends all levels and forgets the records of the transaction; the next revision goes back, too.
    [[nodiscard]] ResultCode Rollback();

    // --- For the end of the storage, and for clears

    // For the end of the storage: flushes what is committed. If callbacks of that flush commit
    // more, flushes a second time, with callbacks off. A failure is logged.
    void FlushForTheLastTime();
    // For a clear that took `cutBytes` bytes from the front of a block. `nextKey` is the key of the
    // block behind it, kEndOfRevs if that was the newest block.
    void BlockWasCut(i64 nextKey, u64 cutBytes);

    // Forgets the transaction and the place where it began, without undoing anything.
    void Reset();

  private:
    // Lets the tests look inside.
    friend struct StorageAccess;

    // The place to which a rollback goes back. Of use only while a transaction is open.
    struct Start {
        // The next revision when the transaction began.
        i64 rev = 0;
        // Used bytes of the newest block when the transaction began; 0 if there was no block.
        u64 used = 0;
    };

    // True when records may be inserted. Callbacks may insert and commit, except in the middle of a
    // flush that may still fail.
    bool MayChange() const { return m_status.IsOpen() && !m_flusher.MayStillFail(); }
    // REQUIRES: the storage is Open; no transaction is.
    [[nodiscard]] ResultCode BeginOutermost();
    // Inserts `rec` with the revision `rev`. RC_INVALID_ARG, logged, above kMaxRev.
    // REQUIRES: rev is not below the next revision.
    [[nodiscard]] ResultCode InsertAt(K9eReplRec* rec, i64 rev) {
        assert(rev >= m_blocks.NextRev());
        return rev <= kMaxRev && IsOpen() ? Place(rec, rev) : InsertAlone(rec, rev);
    }
    // Inserts `rec` in a transaction of its own, or refuses the revision. Errors: as InsertAt.
    [[nodiscard]] ResultCode InsertAlone(K9eReplRec* rec, i64 rev);
    // Copies `rec` into the open transaction. The revision is used up before that, and stays so
    // when the record cannot be placed. Errors: as BlockStore::Place.
    [[nodiscard]] ResultCode Place(K9eReplRec* rec, i64 rev) {
        assert(IsOpen() && rev >= m_blocks.NextRev() && rev <= kMaxRev);
        rec->rev = rev;
        m_blocks.SetNextRev(rev + 1);
        if (ResultCode rc = m_blocks.Place(*rec, kUnknownOffset); rc != RC_OK) {
            return rc;
        }
        m_dataSize += u64{rec->dataSize} + kRecordHeadSize;
        return RC_OK;
    }
    // What follows the end of the outermost level: flush or notification, a save of the index, a
    // smaller cache.
    [[nodiscard]] ResultCode CommitOutermost();
    // The flush that a commit makes when it is due. Errors: those of the flush, with the
    // transaction open again.
    [[nodiscard]] ResultCode FlushDue();
    // Tries a failed flush again when no transaction is open.
    void RetryFlush();

    const OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    IndexKeeper& m_index;
    Flusher& m_flusher;

    u32 m_depth = 0;            // levels of Begin without their Commit; 0: no transaction is open
    bool m_rolledBack = false;  // Rollback came since the last outermost Begin
    Start m_start;
    // Bytes of the records, heads included, that were inserted since the last outermost Begin.
    u64 m_dataSize = 0;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_TRANSACTION_H
