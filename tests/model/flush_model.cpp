// The counters of the flush modes; see the header.
#include "model/flush_model.h"

namespace k9erepl::model {

void FlushModel::Start(const Settings& settings) {
    m_by = settings.flushBy;
    m_threshold = settings.flushThreshold;
    Flushed();
}

void FlushModel::Flushed() {
    m_most = 0;
    m_least = 0;
}

void FlushModel::LoseCount() {
    m_least = 0;
}

bool FlushModel::Reached(u64 count) const {
    if (count == 0) {
        return false;
    }
    if (m_by == FlushBy::kTransactions) {
        // As an unsigned number: a negative one is never reached.
        return count >= static_cast<u32>(m_threshold);
    }
    return static_cast<i64>(count) >= m_threshold;
}

Expected FlushModel::Commit(u64 bytes) {
    if (m_by == FlushBy::kNever) {
        return Expected::kNo;
    }
    const u64 counted = m_by == FlushBy::kTransactions ? 1 : bytes;
    m_most += counted;
    m_least += counted;
    if (Reached(m_least)) {
        Flushed();
        return Expected::kYes;
    }
    if (Reached(m_most)) {
        LoseCount();
        return Expected::kMaybe;
    }
    return Expected::kNo;
}

}  // namespace k9erepl::model
