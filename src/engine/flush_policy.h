// Decides when to flush: counts what was committed since the last flush and compares that with the
// threshold and the time-out of the settings flush_mode, flush_trans_num, flush_data_size and
// flush_timeout. The flusher owns one; the idle flush asks it without the storage's lock.
#ifndef K9EREPL_ENGINE_FLUSH_POLICY_H
#define K9EREPL_ENGINE_FLUSH_POLICY_H

#include <atomic>

#include "engine/open_settings.h"
#include "platform/clock.h"
#include "platform/int_types.h"

namespace k9erepl {

// Written under the storage's lock, except the time of the last flush, and read by any thread. Each
// value is atomic by itself, but a reader without the lock may see one new and one old value, so it
// must ask again under the lock before it acts.
class FlushPolicy {
  public:
    FlushPolicy() { RecordFlushTime(); }

    // False while the mode's counter is 0. Otherwise true when the counter has reached the mode's
    // threshold, or when the time-out has passed since the last flush.
    bool FlushNeeded(const OpenSettings& settings) const;

    // A transaction with `dataSize` bytes of records, heads included, was committed. Only the
    // counter of `mode` rises; NoFlush has none.
    void CountCommit(FlushMode mode, u64 dataSize);

    // What was counted at one moment. A flush takes it at its beginning, and hands it back when it
    // has succeeded.
    struct Counted {
        u32 transactions = 0;  // committed transactions
        u64 dataSize = 0;      // bytes, heads included
    };
    Counted Now() const { return {m_transSinceFlush, m_dataSinceFlush}; }
    // Subtracts what a flush covered; commits that came during the flush stay counted.
    // REQUIRES: `covered` came from Now(), and nothing of it was subtracted since.
    void Flushed(const Counted& covered);

    // Starts the time-out again. Needs no lock.
    void RecordFlushTime() { m_lastFlushTick = platform::TickCountMs(); }
    // Sets both counters to 0, so no flush is needed. The time-out goes on.
    void Clear() { Flushed(Now()); }

  private:
    // The tick count in milliseconds at the last flush; it wraps around, so only differences count.
    std::atomic<u32> m_lastFlushTick{0};
    // Transactions committed since the last flush; counted in the mode PerTrans only, else 0.
    std::atomic<u32> m_transSinceFlush{0};
    // Bytes of records, heads included, committed since then; counted in the mode PerData only,
    // else 0.
    std::atomic<u64> m_dataSinceFlush{0};
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_FLUSH_POLICY_H
