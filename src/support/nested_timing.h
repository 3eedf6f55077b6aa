// Times the outermost of runs that may be nested in one another: a flush whose callback clears, and
// with it flushes again. Used by the flusher around flushes and around OnFlush.
#ifndef K9EREPL_SUPPORT_NESTED_TIMING_H
#define K9EREPL_SUPPORT_NESTED_TIMING_H

#include "platform/int_types.h"
#include "support/timing_set.h"

namespace k9erepl {

// One run, from construction to destruction; only a run that succeeds calls Stop. `depth` counts
// the runs that are under way, in all scopes of that counter, and belongs to the counter's owner.
class NestedTiming {
  public:
    NestedTiming(TimingSet& timing, u32 counter, u32& depth)
        : m_timing(timing), m_counter(counter), m_depth(depth) {
        if (m_depth++ == 0) {
            m_timing.Start(m_counter);
        }
    }
    ~NestedTiming() { --m_depth; }
    NestedTiming(const NestedTiming&) = delete;
    NestedTiming& operator=(const NestedTiming&) = delete;

    void Stop() {
        if (m_depth == 1) {
            m_timing.Stop(m_counter);
        }
    }

  private:
    TimingSet& m_timing;
    const u32 m_counter;
    u32& m_depth;
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_NESTED_TIMING_H
