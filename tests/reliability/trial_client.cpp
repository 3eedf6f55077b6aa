// The library's calls; see the header.
#include "reliability/trial_client.h"

#include <cstring>
#include <utility>

namespace k9erepl::reliability {

namespace {

struct Comparison {
    model::Records::const_iterator next;
    model::Records::const_iterator end;
    bool differs = false;
};

u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
    auto& comparison = *static_cast<Comparison*>(context);
    if (comparison.next == comparison.end) {
        comparison.differs = true;
        return RC_OK;
    }
    const auto& [rev, expected] = *comparison.next++;
    comparison.differs |= i64{record->rev} != rev || record->userWord != expected.userWord ||
                          record->dataSize != expected.data.size() ||
                          std::memcmp(record->data, expected.data.data(), record->dataSize) != 0;
    return RC_OK;
}

}  // namespace

u32 TrialClient::Open(const char* connStr) {
    m_flushedCount = 0;
    const u32 rc = K9eReplStorageOpen(connStr, &m_handle);
    if (rc == RC_OK) {
        K9eReplStorageSetOnFlushCallback(m_handle, &OnFlush, this);
    }
    return rc;
}

u32 TrialClient::Close() {
    void* const handle = std::exchange(m_handle, nullptr);
    return handle == nullptr ? u32{RC_OK} : K9eReplStorageClose(handle);
}

StorageState TrialClient::State() const {
    auto* storage = static_cast<IK9eReplStorage*>(m_handle);
    return StorageAccess::State(*static_cast<CK9eReplStorage*>(storage));
}

i64 TrialClient::NextRev() const {
    i64 rev = 0;
    K9eReplStorageGetNextRev(m_handle, &rev);
    return rev;
}

void TrialClient::Prepare(const model::PlannedRecord& planned) {
    const std::string& data = planned.record.data;
    m_buffer.assign((sizeof(K9eReplRec) + data.size()) / sizeof(u64) + 1, 0);
    auto* record = reinterpret_cast<K9eReplRec*>(m_buffer.data());
    record->userWord = planned.record.userWord;
    record->dataSize = planned.dataSize;
    if (!data.empty()) {
        std::memcpy(record->data, data.data(), data.size());
    }
}

u32 TrialClient::Insert(const i64* rev) {
    auto* record = reinterpret_cast<K9eReplRec*>(m_buffer.data());
    if (rev == nullptr) {
        return K9eReplStorageInsert(m_handle, record);
    }
    record->rev = *rev;
    return K9eReplStorageInsertP(m_handle, record);
}

u32 TrialClient::Enumerate(const model::Records& expected, bool* differs) const {
    Comparison comparison{expected.begin(), expected.end()};
    const u32 rc = K9eReplStorageEnumRecords(m_handle, model::kLowestRev, model::kHighestRev,
                                             &OnRecord, &comparison);
    *differs = comparison.differs || (rc == RC_OK && comparison.next != comparison.end);
    return rc;
}

std::vector<i64> TrialClient::TakeFlushed() {
    const auto count = static_cast<std::ptrdiff_t>(std::exchange(m_flushedCount, 0));
    return {m_flushed.begin(), m_flushed.begin() + count};
}

void TrialClient::OnFlush(i64 lastRev, void* context) {
    auto& client = *static_cast<TrialClient*>(context);
    if (client.m_flushedCount < client.m_flushed.size()) {
        client.m_flushed.at(client.m_flushedCount++) = lastRev;
    }
}

}  // namespace k9erepl::reliability
