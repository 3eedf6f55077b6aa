// A client of the library: one handle, and what the library tells it. No call of the library makes
// it allocate memory. Used by the runner and by the families of tests/reliability.
#ifndef K9EREPL_TESTS_MODEL_STORAGE_CLIENT_H
#define K9EREPL_TESTS_MODEL_STORAGE_CLIENT_H

#include <k9erepl/storage_interfaces.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "model/operation.h"

namespace k9erepl::model {

// Answers 0 to go on.
using RecordVisitor = std::function<u32(const K9eReplRec& record)>;

// Hears OnWriteToFile, and can keep the thread that tells it from going on.
class WriterWatch {
  public:
    struct Report {
        std::optional<i64> rev;  // told last
        bool stands = false;     // the writer is being held: it writes nothing
    };
    Report Get() const;
    void Forget();
    // From the next call on the thread that tells is held.
    // REQUIRES: that is a thread of the library's.
    void Hold();
    void Release();

    static void K9EREPL_CALL OnWritten(i64 lastRev, void* watch);

  private:
    mutable std::mutex m_mutex;
    std::condition_variable m_released;
    Report m_report;
    bool m_hold = false;
};

class StorageClient {
  public:
    StorageClient() { m_flushed.reserve(256); }
    ~StorageClient() { Close(); }
    StorageClient(const StorageClient&) = delete;
    StorageClient& operator=(const StorageClient&) = delete;

    u32 Open(const std::string& connString);
    u32 Close();
    bool HasHandle() const { return m_handle != nullptr; }

    // REQUIRES for all of these: there is a handle.
    void* Handle() const { return m_handle; }
    IK9eReplDS& DataSource() const;
    // Makes the next record to insert, so that inserting allocates nothing here.
    void Prepare(const PlannedRecord& planned);
    // A null `rev` takes the next revision.
    u32 InsertPrepared(const i64* rev);
    // Both. `prepared` is the revision for InsertP, null for Insert. *rev receives the record's
    // revision.
    u32 Insert(const PlannedRecord& planned, const i64* prepared, i64* rev);
    u32 Enumerate(i64 from, i64 to, const RecordVisitor& visitor) const;
    u32 EnumerateFrom(i64 from, const RecordVisitor& visitor) const;
    i64 NextRev() const;

    // The revisions that OnFlush told since the last call.
    std::vector<i64> TakeFlushed();
    WriterWatch& Writer() { return m_writer; }

  private:
    void* m_handle = nullptr;
    std::vector<i64> m_flushed;
    WriterWatch m_writer;
    std::vector<u64> m_buffer;  // for the record to hand in
};

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_STORAGE_CLIENT_H
