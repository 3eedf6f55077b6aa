// Puts records into a storage, a fixed number a transaction. Used by the append command alone.
#ifndef K9EREPL_K9REPL_APPEND_TRANSACTIONS_H
#define K9EREPL_K9REPL_APPEND_TRANSACTIONS_H

#include <k9erepl/storage.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "storage_handle.h"
#include "stored_revision.h"

namespace k9repl {

// What was committed in this run.
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
                       std::uint32_t recordsPerTransaction);

    // Appends a record and commits when the transaction is full. Throws ToolError; a transaction
    // that could not be committed is then rolled back, one that is only part full stays open.
    void Add(std::string_view data);

    // Commits what is open and makes the library flush what waits for its threshold, as far as
    // commits can. Throws ToolError; what is not flushed then may still be when the storage closes.
    void Finish();

    const AppendTotals& Totals() const { return m_totals; }

  private:
    void Begin();
    void Commit();
    K9eReplRec* FillRecord(std::string_view data);

    StorageHandle& m_storage;
    const StoredRevision& m_stored;
    const std::uint32_t m_recordsPerTransaction;
    std::vector<std::uint8_t> m_record;  // head and data of the record that is being appended
    bool m_inTransaction = false;
    std::uint32_t m_openRecords = 0;  // of the open transaction
    AppendTotals m_open;              // totals as they will be when it is committed
    AppendTotals m_totals;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_APPEND_TRANSACTIONS_H
