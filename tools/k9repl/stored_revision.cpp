// Keeps the revisions that the callbacks report.
#include "stored_revision.h"

#include <algorithm>

namespace k9repl {

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

}  // namespace k9repl
