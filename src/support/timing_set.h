// Named stopwatches that one owner starts and stops around its work and reports in one log line.
// The flusher, the index object and the index test own one each. One thread at a time.
#ifndef K9EREPL_SUPPORT_TIMING_SET_H
#define K9EREPL_SUPPORT_TIMING_SET_H

#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl {

class TimingSet {
  public:
    // Reads the performance counter's frequency; without one, durations are reported negative.
    TimingSet();

    // Adds a counter and returns its index; a name that exists keeps its counter and is logged.
    // Throws std::bad_alloc; nothing else here allocates.
    u32 Register(const char* name);

    // Start begins an interval; a counter that runs already is logged and loses what it gathered.
    // Stop ends it, and does nothing to a counter that does not run: a report in the middle of the
    // interval has ended it. Work that failed leaves its counter running; the next Start clears it.
    // REQUIRES: index came from Register.
    void Start(u32 index);
    void Stop(u32 index);

    // Logs "<name>: <total> mcs (<count> x <mean> mcs)" for every counter in one line, then sets
    // all of them to 0.
    void Report();

    // Sets every counter to 0; with `all`, removes them.
    void Reset(bool all);

  private:
    static constexpr u32 kTextSize = 128;
    struct Counter {
        std::string name;
        i64 start = 0;  // performance counter; 0 when not running
        i64 total = 0;  // ticks of the finished intervals since the last report
        u32 count = 0;  // how many those are
        char text[kTextSize] = {};
    };

    static void Clear(Counter& counter);
    void Format(Counter& counter) const;

    double m_ticksPerMicrosecond = -1.0;
    std::vector<Counter> m_counters;
    std::string m_report;
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_TIMING_SET_H
