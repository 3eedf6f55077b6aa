// When to flush: counts what was committed since the last flush and applies the flush mode's
// threshold and time-out. The idle flush looks at it without the storage's lock.
#ifndef K9EREPL_ENGINE_FLUSH_POLICY_H
#define K9EREPL_ENGINE_FLUSH_POLICY_H

#include <atomic>

#include "engine/open_settings.h"
#include "platform/clock.h"
#include "platform/int_types.h"

namespace k9erepl {

// Written under the storage's lock, read by anyone; each value stands alone, and a reader without
// the lock asks again under it before it acts.
class FlushPolicy {
  public:
    FlushPolicy() { RecordFlushTime(); }

    // True when the counter of the mode is above 0 and has reached its threshold, or the time-out
    // has passed since the last flush.
    bool FlushNeeded(const OpenSettings& settings) const;

    // A transaction with `dataSize` bytes of records was committed.
    void CountCommit(FlushMode mode, u64 dataSize);

    // The commits that a flush which begins now covers when it succeeds.
    struct Counted {
        u32 transactions = 0;
        u64 dataSize = 0;
    };
    Counted Now() const { return {m_transSinceFlush, m_dataSinceFlush}; }
    // Takes what a flush covered off the counters; commits that came meanwhile stay counted.
    void Flushed(const Counted& covered);

    void RecordFlushTime() { m_lastFlushTick = platform::TickCountMs(); }
    // No flush is needed any more, whatever was counted.
    void Clear() { Flushed(Now()); }

  private:
    std::atomic<u32> m_lastFlushTick{0};    // milliseconds
    std::atomic<u32> m_transSinceFlush{0};  // committed transactions, in PerTrans mode
    std::atomic<u64> m_dataSinceFlush{0};   // committed bytes, in PerData mode
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSH_POLICY_H
