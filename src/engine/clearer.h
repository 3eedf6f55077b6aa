// Removes records: clears what is older than a revision, and starts a storage over. The storage
// object owns one and calls it for ClearOldRev and Truncate; opening a storage without a file, and
// loading one from ":memory:", truncate it, too. docs/architecture.md ("A clear") gives the steps,
// docs/storage-file.md ("Removing data") what a crash leaves at each of them.
#ifndef K9EREPL_ENGINE_CLEARER_H
#define K9EREPL_ENGINE_CLEARER_H

#include "engine/block_store.h"
#include "engine/clear_search.h"
#include "engine/client_marks.h"
#include "engine/flusher.h"
#include "engine/index_keeper.h"
#include "engine/open_settings.h"
#include "engine/storage_status.h"
#include "engine/transaction.h"
#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/result.h"

namespace k9erepl {

// How ClearOldRev treats the storage file. The numbers are those of the exported function; every
// other number is a logical clear, too.
enum class ClearMode : u32 {
    kLogical = 0,        // appends a commit block with the clear revision
    kSqueeze = 1,        // replaces the file by a copy of what is kept
    kSqueezeBackup = 2,  // does the same and keeps the old file as a backup
    kMark = 4,           // removes nothing, only sets the revision mark for the client
};
// True for the two modes that replace the file.
inline bool Squeezes(ClearMode mode) {
    return mode == ClearMode::kSqueeze || mode == ClearMode::kSqueezeBackup;
}

// Has no state of its own: it refers to the objects that it changes, which outlive it. Called under
// the storage's lock. A clear is refused inside a transaction and to callbacks that run in the
// middle of a flush or of another clear, because those rely on the places of records and file
// offsets.
class Clearer {
  public:
    Clearer(const OpenSettings& settings, StorageStatus& status, BlockStore& blocks,
            CSolidStorage& file, ClientMarks& marks, IndexKeeper& index, Flusher& flusher,
            Transaction& transaction)
        : m_settings(settings),
          m_status(status),
          m_blocks(blocks),
          m_file(file),
          m_marks(marks),
          m_index(index),
          m_flusher(flusher),
          m_transaction(transaction) {}
    Clearer(const Clearer&) = delete;
    Clearer& operator=(const Clearer&) = delete;

    // See K9eReplStorageClearOldRev. Records below `rev` are no longer served. Does nothing when
    // `rev` is not above the oldest revision, unless a squeeze can remove what earlier logical
    // clears left in the file.
    //
    // Errors, logged: RC_WRONG_STATE unless the storage is Open; RC_IN_TRANSACTION as said above.
    // When the flush before the clear fails, the storage becomes FlushFailed and nothing is
    // cleared. A clear that fails in the file, or in which a callback throws, breaks the storage.
    [[nodiscard]] ResultCode ClearOldRev(i64 rev, ClearMode mode);
    // See K9eReplStorageTruncate. Removes all records, sets the life number and the revision mark
    // to 0, begins again with revision 1; the storage becomes Open. Errors: RC_IN_TRANSACTION
    // changes nothing; every other failure breaks the storage and is logged.
    [[nodiscard]] ResultCode Truncate();
    // Brings everything back to what it was before the first load: the storage is Closed and empty.
    // The files and the index object stay as they are.
    void StartOver();

  private:
    // True when no transaction is open and no flush or clear is in the middle of its work.
    bool MayRemoveNow() const { return !m_transaction.IsOpen() && m_status.MayRemove(); }
    // RC_WRONG_STATE unless the storage is Open, RC_IN_TRANSACTION if `inTransaction`; both are
    // logged.
    [[nodiscard]] ResultCode Refuse(bool inTransaction) const;
    // Does a clear that was accepted. REQUIRES: the clear was begun (BeginClear); the index is not
    // empty.
    [[nodiscard]] ResultCode ClearBelow(i64 rev, ClearMode mode);
    // Flushes everything that a clear of `rev` has to find in the file. Errors: those of the flush;
    // those of Refuse when a callback of the flush changed the state or began a transaction.
    [[nodiscard]] ResultCode FlushBefore(i64 rev);
    // Clears a storage without a file. Cannot fail.
    void ClearInMemory(i64 rev);
    // Clears file and memory of a storage with a file. REQUIRES: no transaction is open.
    [[nodiscard]] ResultCode ClearInFile(i64 rev, ClearMode mode);
    // Nothing is kept: starts the file over, and the revisions go on. `rev` is only logged.
    [[nodiscard]] ResultCode ClearWholeFile(i64 rev);
    // Fills *search, once the block under `holdingKey` is written: from memory if that is enough,
    // else by reading the file from that block on.
    // Finds nothing when no record at or above search->minRev is in the file.
    [[nodiscard]] ResultCode FindFirstKept(i64 holdingKey, ClearMode mode, ClearSearch* search);
    // Waits until the asynchronous writer has written the block under `key` and the one behind it.
    // Errors: those of CSolidStorage::WaitReleaseBlock.
    [[nodiscard]] ResultCode WaitForBlockWrites(i64 key);
    // Runs the search over the file from the block `holding`. Errors, logged: those of the
    // enumeration; RC_BAD_DATA when the block has no file offset.
    [[nodiscard]] ResultCode SearchFrom(const BlockIndex::value_type& holding, ClearSearch* search);
    static void LogSearch(const ClearSearch& search);
    // Replaces the file. *shift receives the bytes to add to every file offset. The index file is
    // emptied right before the new file takes the place of the old one. Errors, logged: those of
    // CSolidStorage::Squeeze; RC_BAD_DATA when no commit block was found behind the kept records.
    [[nodiscard]] ResultCode SqueezeFile(const ClearSearch& search, ClearMode mode, i64* shift);
    // Appends the commit block of a logical clear and waits until it is written.
    [[nodiscard]] ResultCode RaiseClearRev(const ClearSearch& search);
    // Brings the block store in line with the file after a clear.
    void ForgetBelow(i64 holdingKey, const ClearSearch& search, i64 shift);
    // Empties the index file and starts the storage file over. REQUIRES: the storage has a file
    // that it may write.
    [[nodiscard]] ResultCode TruncateFile();

    const OpenSettings& m_settings;
    StorageStatus& m_status;
    BlockStore& m_blocks;
    CSolidStorage& m_file;
    ClientMarks& m_marks;
    IndexKeeper& m_index;
    Flusher& m_flusher;
    Transaction& m_transaction;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_CLEARER_H
