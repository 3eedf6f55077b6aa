// Puts records into a storage, a fixed number a transaction, fewer when they come slowly, and
// watches how far they are stored. Used by the append command alone.
#ifndef K9EREPL_K9REPL_APPEND_TRANSACTIONS_H
#define K9EREPL_K9REPL_APPEND_TRANSACTIONS_H

#include <k9erepl/storage.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include "storage_handle.h"
#include "streams.h"

namespace k9repl {

// The last revision that is safely stored, as the library's two callbacks report it. The append
// command promises nothing above it. Must outlive the handle that it watches: closing a storage
// flushes once more.
class StoredRevision {
  public:
    StoredRevision() = default;
    StoredRevision(const StoredRevision&) = delete;
    StoredRevision& operator=(const StoredRevision&) = delete;

    // Called before the first transaction. Everything that the storage was loaded with counts as
    // stored.
    void Watch(StorageHandle& storage);

    // The last revision that is both written and flushed; 0 when nothing is stored.
    std::int64_t Get() const;
    // The last flushed revision; the asynchronous writer may not have written it yet.
    std::int64_t Flushed() const { return m_flushed.load(); }

  private:
    static void K9EREPL_CALL OnRevision(std::int64_t lastRev, void* context);

    std::atomic<std::int64_t> m_flushed{0};
    std::atomic<std::int64_t> m_written{0};
};

// Totals of what this run has committed.
struct AppendTotals {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;  // of data
    std::int64_t firstRev = 0;
    std::int64_t lastRev = 0;  // both 0 without records
};

class AppendTransactions {
  public:
    // REQUIRES: recordsPerTransaction > 0. Both references outlive this object.
    AppendTransactions(StorageHandle& storage, const StoredRevision& stored,
                       std::uint32_t recordsPerTransaction, std::chrono::milliseconds commitAfter);

    // Appends a record and commits when the transaction is full. Throws ToolError; a transaction
    // that could not be committed is then rolled back, one that is only part full stays open.
    void Add(std::string_view data);

    // The time at which CommitWhenDue has something to do: `commitAfter` behind the first record
    // that is not flushed; kNoDeadline when all are flushed.
    Deadline Due() const { return m_due; }

    // At that time commits what is open and makes the library flush, as far as commits can. Throws
    // ToolError. What still waits for the library's own time-out is due again after `commitAfter`.
    void CommitWhenDue();

    // Commits what is open and makes the library flush what waits for its threshold, as far as
    // commits can. Throws ToolError; what is not flushed then may still be when the storage closes.
    void Finish();

    const AppendTotals& Totals() const { return m_totals; }

  private:
    bool IsFlushed() const { return m_stored.Flushed() >= m_totals.lastRev; }
    void Begin();
    void Commit();
    // Makes empty commits until `reached` says so, or many of them have not moved the library to
    // flush.
    template <typename Condition>
    void CommitUntil(Condition reached);
    K9eReplRec* FillRecord(std::string_view data);

    StorageHandle& m_storage;
    const StoredRevision& m_stored;
    const std::uint32_t m_recordsPerTransaction;
    const std::chrono::milliseconds m_commitAfter;
    Deadline m_due = kNoDeadline;
    std::vector<std::uint8_t> m_record;  // head and data of the record that is being appended
    bool m_inTransaction = false;
    std::uint32_t m_openRecords = 0;  // of the open transaction
    AppendTotals m_open;              // totals as they will be when it is committed
    AppendTotals m_totals;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_APPEND_TRANSACTIONS_H
