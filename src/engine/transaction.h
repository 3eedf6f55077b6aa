// The client's transaction: how deep it is nested, where it began, the way back there, and what
// follows its commit. The storage object owns one; a clear inside a callback moves the place where
// the transaction began.
#ifndef K9EREPL_ENGINE_TRANSACTION_H
#define K9EREPL_ENGINE_TRANSACTION_H

#include <k9erepl/storage.h>

#include "engine/block_store.h"
#include "engine/flusher.h"
#include "engine/index_keeper.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"

namespace k9erepl {

// Guarded by the storage's lock. What is refused because of the storage's state is logged and
// answers RC_WRONG_STATE.
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

    bool IsOpen() const { return m_depth > 0; }
    // The last revision that no open transaction can take back.
    i64 LastCommittedRev() const { return (IsOpen() ? m_start.rev : m_blocks.NextRev()) - 1; }

    // --- The calls of that name; see K9eReplStorageBeginTransaction and those that follow it

    [[nodiscard]] u32 Begin();
    [[nodiscard]] u32 Insert(K9eReplRec* rec);
    [[nodiscard]] u32 InsertP(K9eReplRec* rec);
    [[nodiscard]] u32 Commit();
    [[nodiscard]] u32 Rollback();

    // --- For the end of the storage, and for clears

    // Flushes what is committed, twice if callbacks of the first flush commit more: then nobody is
    // told of the second one.
    void FlushForTheLastTime();
    // A clear took `cutBytes` bytes from the front of the block whose successor has the key
    // `nextKey`, kEndOfRevs for the newest block.
    void BlockWasCut(i64 nextKey, u64 cutBytes);

    void Reset();

  private:
    friend struct StorageAccess;  // the tests' eyes

    // The place to which a rollback goes back.
    struct Start {
        i64 rev = 0;   // the next revision then; 0 outside of a transaction
        u64 used = 0;  // used bytes of the newest block then
    };

    // Callbacks may insert and commit, except in the middle of a flush that may still fail.
    bool MayChange() const { return m_status.IsOpen() && !m_flusher.MayStillFail(); }
    [[nodiscard]] u32 BeginOutermost();
    [[nodiscard]] u32 InsertAt(K9eReplRec* rec, i64 rev);
    [[nodiscard]] u32 Place(K9eReplRec* rec, i64 rev);
    [[nodiscard]] u32 CommitOutermost();
    [[nodiscard]] u32 FlushIfNeeded();
    void RetryFlush();

    const OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    IndexKeeper& m_index;
    Flusher& m_flusher;

    u32 m_depth = 0;            // nesting; 0: none is open
    bool m_rolledBack = false;  // Rollback came since the last outermost Begin
    Start m_start;
    u64 m_dataSize = 0;  // bytes of the records of this transaction, or of the last one
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_TRANSACTION_H
