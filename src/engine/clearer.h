// Removing records: clearing what is older than a revision, and starting a storage over. The
// storage object owns one and calls it for ClearOldRev and Truncate; a load into a storage without
// a file truncates, too.
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

namespace k9erepl {

// How ClearOldRev treats the storage file; every other number is a logical clear too.
enum class ClearMode : u32 {
    kLogical = 0,        // raises the file's clear revision
    kSqueeze = 1,        // replaces the file by what is kept of it
    kSqueezeBackup = 2,  // the same, and keeps the old file
    kMark = 4,           // only remembers the revision for the client
};
inline bool Squeezes(ClearMode mode) {
    return mode == ClearMode::kSqueeze || mode == ClearMode::kSqueezeBackup;
}

// Owns nothing but its references: what a clear finds out dies with it. Called under the storage's
// lock.
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

    // See K9eReplStorageClearOldRev. A clear that fails in the file breaks the storage.
    [[nodiscard]] u32 ClearOldRev(i64 rev, ClearMode mode);
    // See K9eReplStorageTruncate. The storage becomes Open; a failure breaks it.
    [[nodiscard]] u32 Truncate();
    // Puts every part back to what it was before the first load: the storage is Closed and empty.
    // The files and the index object stay as they are.
    void StartOver();

  private:
    bool MayRemoveNow() const { return !m_transaction.IsOpen() && m_status.MayRemove(); }
    [[nodiscard]] u32 Refuse(bool inTransaction) const;
    [[nodiscard]] u32 ClearBelow(i64 rev, ClearMode mode);
    [[nodiscard]] u32 FlushBefore(i64 rev);
    void ClearInMemory(i64 rev);
    [[nodiscard]] u32 ClearInFile(i64 rev, ClearMode mode);
    [[nodiscard]] u32 ClearWholeFile(i64 rev);
    [[nodiscard]] u32 FindFirstKept(i64 holdingKey, ClearMode mode, ClearSearch* search);
    [[nodiscard]] u32 WaitForBlockWrites(i64 key);
    [[nodiscard]] u32 SearchFrom(const BlockIndex::value_type& holding, ClearSearch* search);
    [[nodiscard]] u32 SqueezeFile(const ClearSearch& search, ClearMode mode, i64* shift);
    [[nodiscard]] u32 RaiseClearRev(const ClearSearch& search);
    void ForgetBelow(i64 holdingKey, const ClearSearch& search, i64 shift);
    [[nodiscard]] u32 TruncateFile();

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
