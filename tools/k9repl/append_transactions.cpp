// The transactions of append, and the callbacks that report what is stored.
#include "append_transactions.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <cstring>

#include "tool_error.h"

namespace k9repl {

namespace {

// How many empty commits CommitUntil makes at most. This is more than any sensible flush_trans_num
// and still takes only a moment.
constexpr int kFlushingCommitsMax = 1000;

}  // namespace

void StoredRevision::Watch(StorageHandle& storage) {
    m_flushed = m_written = storage.NextRev() - 1;
    storage.Check(K9eReplStorageSetOnFlushCallback(storage.Get(), &OnRevision, &m_flushed),
                  "watch the flushes of");
    storage.Check(K9eReplStorageSetOnWriteToFileCallback(storage.Get(), &OnRevision, &m_written),
                  "watch the writes of");
}

std::int64_t StoredRevision::Get() const {
    return std::min(m_flushed.load(), m_written.load());
}

void K9EREPL_CALL StoredRevision::OnRevision(std::int64_t lastRev, void* context) {
    static_cast<std::atomic<std::int64_t>*>(context)->store(lastRev);
}

AppendTransactions::AppendTransactions(StorageHandle& storage, const StoredRevision& stored,
                                       std::uint32_t recordsPerTransaction,
                                       std::chrono::milliseconds commitAfter)
    : m_storage(storage),
      m_stored(stored),
      m_recordsPerTransaction(recordsPerTransaction),
      m_commitAfter(commitAfter) {
    assert(recordsPerTransaction > 0);
}

void AppendTransactions::Add(std::string_view data) {
    if (!m_inTransaction) {
        Begin();
    }
    if (m_due == kNoDeadline) {
        m_due = Deadline::clock::now() + m_commitAfter;
    }
    K9eReplRec* record = FillRecord(data);
    if (const std::uint32_t code = K9eReplStorageInsert(m_storage.Get(), record)) {
        throw LibraryError(
            fmt::format("append record {} to {}", m_open.records + 1, m_storage.Name()), code);
    }
    m_open.firstRev = m_open.records == 0 ? record->rev : m_open.firstRev;
    m_open.lastRev = record->rev;
    m_open.records += 1;
    m_open.bytes += data.size();
    m_openRecords += 1;
    if (m_openRecords >= m_recordsPerTransaction) {
        Commit();
    }
}

void AppendTransactions::CommitWhenDue() {
    if (m_due == kNoDeadline || Deadline::clock::now() < m_due) {
        return;
    }
    if (m_inTransaction) {
        Commit();
    }
    CommitUntil([this] { return IsFlushed(); });
    m_due = IsFlushed() ? kNoDeadline : Deadline::clock::now() + m_commitAfter;
}

void AppendTransactions::Finish() {
    if (m_inTransaction) {
        Commit();
    }
    CommitUntil([this] { return m_stored.Get() >= m_totals.lastRev; });
}

// An empty transaction counts towards flush_trans_num and changes nothing else. The commit also
// returns a code if the flush fails; closing the storage would not.
template <typename Condition>
void AppendTransactions::CommitUntil(Condition reached) {
    for (int i = 0; i < kFlushingCommitsMax && !reached(); ++i) {
        Begin();
        Commit();
    }
}

void AppendTransactions::Begin() {
    std::uint32_t code = K9eReplStorageBeginTransaction(m_storage.Get());
    if (code == RC_WRONG_STATE) {
        // An earlier flush of the idle storage failed, and no transaction can begin until it
        // succeeds. A commit tries it again.
        K9eReplStorageCommit(m_storage.Get());
        code = K9eReplStorageBeginTransaction(m_storage.Get());
    }
    m_storage.Check(code, "begin a transaction of");
    m_inTransaction = true;
    m_openRecords = 0;
    m_open = m_totals;
}

void AppendTransactions::Commit() {
    const std::uint32_t code = K9eReplStorageCommit(m_storage.Get());
    m_inTransaction = false;
    if (code != RC_OK) {
        K9eReplStorageRollback(m_storage.Get());
        throw LibraryError("commit to " + m_storage.Name(), code);
    }
    m_totals = m_open;
    if (IsFlushed()) {
        m_due = kNoDeadline;
    }
}

K9eReplRec* AppendTransactions::FillRecord(std::string_view data) {
    m_record.resize(std::max(m_record.size(), sizeof(K9eReplRec) + data.size()));
    auto* record = reinterpret_cast<K9eReplRec*>(m_record.data());
    record->rev = 0;
    record->userWord = 0;
    record->dataSize = static_cast<std::uint32_t>(data.size());
    std::memcpy(record->data, data.data(), data.size());
    return record;
}

}  // namespace k9repl
