// Times the outermost of several runs that may be nested: a flush calls OnFlush, which may clear,
// and the clear flushes again. Used by the flusher around flushes and around OnFlush.
//
//     NestedTiming timing(m_timing, m_timeFlush, m_flushDepth);
//     ... the work; a failure returns without Stop ...
//     timing.Stop();
#ifndef K9EREPL_SUPPORT_NESTED_TIMING_H
#define K9EREPL_SUPPORT_NESTED_TIMING_H

#include "platform/int_types.h"
#include "support/timing_set.h"

namespace k9erepl {

// One run, from construction to destruction. Only a run that succeeds calls Stop, so failed runs do
// not count. A run inside another one would restart the counter and lose what it gathered: only the
// outermost starts and stops it. Used under the storage's lock, by one thread at a time.
class NestedTiming {
  public:
    // `counter` is an index from timing.Register. `depth` counts the runs of that counter that are
    // under way; it belongs to the counter's owner, begins with 0, and is 0 again when all have
    // ended, also by an exception. Both references outlive this object.
    NestedTiming(TimingSet& timing, u32 counter, u32& depth)
        : m_timing(timing), m_counter(counter), m_depth(depth) {
        if (m_depth++ == 0) {
            m_timing.Start(m_counter);
        }
    }
    ~NestedTiming() { --m_depth; }
    NestedTiming(const NestedTiming&) = delete;
    NestedTiming& operator=(const NestedTiming&) = delete;

    // To be called once, when the run has succeeded: the outermost run's time counts from now on.
    void Stop() {
        if (m_depth == 1) {
            m_timing.Stop(m_counter);
        }
    }

  private:
    TimingSet& m_timing;
    const u32 m_counter;
    // Runs of the counter that are under way, this one included; 1 in the outermost run.
    u32& m_depth;
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_NESTED_TIMING_H
