// The flush modes' thresholds; see the header.
#include "engine/flush_policy.h"

#include <cassert>

namespace k9erepl {

bool FlushPolicy::FlushNeeded(const OpenSettings& settings) const {
    bool reached = false;
    if (settings.flushMode == FlushMode::kPerTrans) {
        const u32 count = m_transSinceFlush.load(std::memory_order_relaxed);
        if (count == 0) {
            return false;
        }
        // Compared as an unsigned number, so a negative setting never flushes by count.
        reached = count >= static_cast<u32>(settings.flushTransNum);
    } else if (settings.flushMode == FlushMode::kPerData) {
        const u64 size = m_dataSinceFlush.load(std::memory_order_relaxed);
        if (size == 0) {
            return false;
        }
        reached = static_cast<i64>(size) >= settings.flushDataSize;
    } else {
        return false;
    }
    // The unsigned difference survives the wrap of the tick count.
    const u32 elapsed = platform::TickCountMs() - m_lastFlushTick.load(std::memory_order_relaxed);
    return reached || elapsed >= settings.flushTimeout;
}

void FlushPolicy::CountCommit(FlushMode mode, u64 dataSize) {
    if (mode == FlushMode::kPerTrans) {
        ++m_transSinceFlush;
    } else if (mode == FlushMode::kPerData) {
        m_dataSinceFlush += dataSize;
    }
}

void FlushPolicy::Flushed(const Counted& covered) {
    assert(covered.transactions <= m_transSinceFlush && covered.dataSize <= m_dataSinceFlush);
    m_transSinceFlush -= covered.transactions;
    m_dataSinceFlush -= covered.dataSize;
}

}  // namespace k9erepl
