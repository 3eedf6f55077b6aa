// Inserts records into a storage in transactions of a fixed number of records, or of fewer if they
// arrive slowly, and watches up to which revision they are stored. Only the append command uses it.
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
// command promises nothing about later revisions. Must outlive the handle that it watches: closing
// a storage flushes once more.
class StoredRevision {
  public:
    StoredRevision() = default;
    StoredRevision(const StoredRevision&) = delete;
    StoredRevision& operator=(const StoredRevision&) = delete;

    // Call it before the first transaction. Everything that the storage was loaded with counts as
    // stored. Throws ToolError.
    void Watch(StorageHandle& storage);

    // The last revision that is both written and flushed; 0 if nothing is stored.
    std::int64_t Get() const;
    // The last flushed revision, 0 if there is none. The asynchronous writer may not have written
    // it yet.
    std::int64_t Flushed() const { return m_flushed.load(); }

  private:
    static void K9EREPL_CALL OnRevision(std::int64_t lastRev, void* context);

    // Both are written on whatever thread the library calls back on.
    std::atomic<std::int64_t> m_flushed{0};  // the last revision that OnFlush reported; 0: none
    std::atomic<std::int64_t> m_written{0};  // the last one that OnWriteToFile reported; 0: none
};

// Totals of what this run has committed.
struct AppendTotals {
    std::uint64_t records = 0;
    std::uint64_t bytes = 0;    // of the records' data, without their heads
    std::int64_t firstRev = 0;  // 0 if there are no records
    std::int64_t lastRev = 0;   // inclusive; 0 if there are no records
};

class AppendTransactions {
  public:
    // REQUIRES: recordsPerTransaction > 0. Both references outlive this object.
    AppendTransactions(StorageHandle& storage, const StoredRevision& stored,
                       std::uint32_t recordsPerTransaction, std::chrono::milliseconds commitAfter);

    // Appends a record, and commits if the transaction is then full. Throws ToolError. If the
    // commit failed, the transaction was rolled back; if the insertion failed, it stays open.
    void Add(std::string_view data);

    // The time at which CommitWhenDue has something to do: `commitAfter` after the first record
    // that is not flushed; kNoDeadline if all records are flushed.
    Deadline Due() const { return m_due; }

    // Does nothing before that time. Then commits the open transaction and makes the library flush,
    // as far as commits can do that. Records that still wait for the library's own time-out are due
    // again after `commitAfter`. Throws ToolError.
    void CommitWhenDue();

    // Commits the open transaction and makes the library flush what waits for a threshold, as far
    // as commits can do that. Throws ToolError. Closing the storage may flush what is not flushed
    // then.
    void Finish();

    const AppendTotals& Totals() const { return m_totals; }

  private:
    bool IsFlushed() const { return m_stored.Flushed() >= m_totals.lastRev; }
    void Begin();
    void Commit();
    // Makes empty commits until `reached` returns true, at most kFlushingCommitsMax of them.
    template <typename Condition>
    void CommitUntil(Condition reached);
    K9eReplRec* FillRecord(std::string_view data);

    StorageHandle& m_storage;
    const StoredRevision& m_stored;
    const std::uint32_t m_recordsPerTransaction;
    const std::chrono::milliseconds m_commitAfter;
    Deadline m_due = kNoDeadline;        // see Due
    std::vector<std::uint8_t> m_record;  // the head and data of the record; reused, only ever grows
    bool m_inTransaction = false;
    std::uint32_t m_openRecords = 0;  // records in the open transaction
    AppendTotals m_open;              // the totals once the open transaction is committed
    AppendTotals m_totals;            // the totals of what is committed
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_APPEND_TRANSACTIONS_H
