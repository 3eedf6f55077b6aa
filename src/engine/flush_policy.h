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
    bool FlushNeeded(const OpenSettings& settings) const {
        return FlushNeeded(settings, [this](u32 timeoutMs) { return HasTimedOut(timeoutMs); });
    }
    // The same for a commit, which asks so often that it looks at the coarse clock: a time-out that
    // has just passed may be missed, and then the next commit or the idle call flushes.
    bool FlushNeededAtCommit(const OpenSettings& settings) const {
        return FlushNeeded(settings,
                           [this](u32 timeoutMs) { return HasSurelyTimedOut(timeoutMs); });
    }

    // A transaction with `dataSize` bytes of records, heads included, was committed. Only the
    // counter of `mode` rises; NoFlush has none.
    void CountCommit(FlushMode mode, u64 dataSize) {
        if (mode == FlushMode::kPerTrans) {
            Add(m_transSinceFlush, u32{1});
        } else if (mode == FlushMode::kPerData) {
            Add(m_dataSinceFlush, dataSize);
        }
    }

    // What was counted at one moment. A flush takes it at its beginning, and hands it back when it
    // has succeeded.
    struct Counted {
        u32 transactions = 0;  // committed transactions
        u64 dataSize = 0;      // bytes, heads included
    };
    Counted Now() const {
        return {m_transSinceFlush.load(std::memory_order_relaxed),
                m_dataSinceFlush.load(std::memory_order_relaxed)};
    }
    // Subtracts what a flush covered; commits that came during the flush stay counted.
    // REQUIRES: `covered` came from Now(), and nothing of it was subtracted since.
    void Flushed(const Counted& covered);

    // Starts the time-out again. Needs no lock.
    void RecordFlushTime() {
        m_lastFlushTick.store(platform::TickCountMs(), std::memory_order_relaxed);
    }
    // Sets both counters to 0, so no flush is needed. The time-out goes on.
    void Clear() { Flushed(Now()); }

  private:
    // Both of the functions above; `hasTimedOut` is asked only when the counter alone does not
    // decide.
    template <typename HasTimedOut>
    bool FlushNeeded(const OpenSettings& settings, HasTimedOut hasTimedOut) const {
        if (settings.flushMode == FlushMode::kPerTrans) {
            const u32 count = m_transSinceFlush.load(std::memory_order_relaxed);
            // Compared as an unsigned number, so a negative setting never flushes by count.
            return count != 0 && (count >= static_cast<u32>(settings.flushTransNum) ||
                                  hasTimedOut(settings.flushTimeout));
        }
        if (settings.flushMode == FlushMode::kPerData) {
            const u64 size = m_dataSinceFlush.load(std::memory_order_relaxed);
            return size != 0 && (static_cast<i64>(size) >= settings.flushDataSize ||
                                 hasTimedOut(settings.flushTimeout));
        }
        return false;
    }
    // Only the thread that holds the storage's lock writes: nothing comes between its load and its
    // store. The sum wraps around: to subtract is to add the difference from zero.
    template <typename T>
    static void Add(std::atomic<T>& counter, T value) {
        counter.store(counter.load(std::memory_order_relaxed) + value, std::memory_order_relaxed);
    }
    // The unsigned difference survives the wrap of the tick count.
    bool HasTimedOut(u32 timeoutMs) const {
        return platform::TickCountMs() - m_lastFlushTick.load(std::memory_order_relaxed) >=
               timeoutMs;
    }
    // The coarse clock may still stand before the last flush, which is no time at all, and not the
    // 49 days that the unsigned difference would be without the lag.
    bool HasSurelyTimedOut(u32 timeoutMs) const {
        const u32 elapsed = platform::CoarseTickCountMs() + platform::kCoarseTickLagMs -
                            m_lastFlushTick.load(std::memory_order_relaxed);
        return elapsed >= u64{timeoutMs} + platform::kCoarseTickLagMs;
    }

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
