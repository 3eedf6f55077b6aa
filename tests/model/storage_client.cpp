// The library's calls; see the header.
#include "model/storage_client.h"

#include <cstring>
#include <utility>

namespace k9erepl::model {

namespace {

void K9EREPL_CALL OnFlush(i64 lastRev, void* context) {
    static_cast<std::vector<i64>*>(context)->push_back(lastRev);
}

u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
    return (*static_cast<const RecordVisitor*>(context))(*record);
}

void* Context(const RecordVisitor& visitor) {
    return const_cast<RecordVisitor*>(&visitor);
}

}  // namespace

WriterWatch::Report WriterWatch::Get() const {
    const std::lock_guard guard(m_mutex);
    return m_report;
}

void WriterWatch::Forget() {
    const std::lock_guard guard(m_mutex);
    m_report.rev.reset();
}

void WriterWatch::Hold() {
    const std::lock_guard guard(m_mutex);
    m_hold = true;
}

void WriterWatch::Release() {
    const std::lock_guard guard(m_mutex);
    m_hold = false;
    m_report.stands = false;
    m_released.notify_all();
}

void WriterWatch::OnWritten(i64 lastRev, void* watch) {
    auto& self = *static_cast<WriterWatch*>(watch);
    std::unique_lock guard(self.m_mutex);
    self.m_report = {lastRev, self.m_hold};
    self.m_released.wait(guard, [&] { return !self.m_hold; });
}

u32 StorageClient::Open(const std::string& connString) {
    Close();
    m_flushed.clear();
    m_writer.Forget();
    if (u32 rc = K9eReplStorageOpen(connString.c_str(), &m_handle); rc != RC_OK) {
        return rc;
    }
    if (u32 rc = K9eReplStorageSetOnFlushCallback(m_handle, &OnFlush, &m_flushed); rc != RC_OK) {
        return rc;
    }
    return K9eReplStorageSetOnWriteToFileCallback(m_handle, &WriterWatch::OnWritten, &m_writer);
}

u32 StorageClient::Close() {
    m_writer.Release();
    void* const handle = std::exchange(m_handle, nullptr);
    return handle == nullptr ? u32{RC_OK} : K9eReplStorageClose(handle);
}

IK9eReplDS& StorageClient::DataSource() const {
    IK9eReplDS* source = nullptr;
    static_cast<IK9eReplStorage*>(m_handle)->GetDS(&source);
    return *source;
}

void StorageClient::Prepare(const PlannedRecord& planned) {
    const std::string& data = planned.record.data;
    m_buffer.assign((sizeof(K9eReplRec) + data.size()) / sizeof(u64) + 1, 0);
    auto* record = reinterpret_cast<K9eReplRec*>(m_buffer.data());
    record->rev = -77;
    record->userWord = planned.record.userWord;
    record->dataSize = planned.dataSize;
    if (!data.empty()) {
        std::memcpy(record->data, data.data(), data.size());
    }
}

u32 StorageClient::InsertPrepared(const i64* rev) {
    auto* record = reinterpret_cast<K9eReplRec*>(m_buffer.data());
    if (rev == nullptr) {
        return K9eReplStorageInsert(m_handle, record);
    }
    record->rev = *rev;
    return K9eReplStorageInsertP(m_handle, record);
}

u32 StorageClient::Insert(const PlannedRecord& planned, const i64* prepared, i64* rev) {
    Prepare(planned);
    const u32 rc = InsertPrepared(prepared);
    *rev = reinterpret_cast<K9eReplRec*>(m_buffer.data())->rev;
    return rc;
}

u32 StorageClient::Enumerate(i64 from, i64 to, const RecordVisitor& visitor) const {
    return K9eReplStorageEnumRecords(m_handle, from, to, &OnRecord, Context(visitor));
}

u32 StorageClient::EnumerateFrom(i64 from, const RecordVisitor& visitor) const {
    return DataSource().EnumFrom(0, 0, 0, from, 0, &OnRecord, Context(visitor));
}

i64 StorageClient::NextRev() const {
    i64 rev = 0;
    K9eReplStorageGetNextRev(m_handle, &rev);
    return rev;
}

std::vector<i64> StorageClient::TakeFlushed() {
    // In place: the library holds the address.
    std::vector<i64> taken(m_flushed);
    m_flushed.clear();
    return taken;
}

}  // namespace k9erepl::model
