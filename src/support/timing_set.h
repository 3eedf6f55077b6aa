// Named stopwatches that one owner starts and stops around its work and reports in one log line,
// under the module "***TP***". The flusher and the index worker own one each. Used by one thread at
// a time.
#ifndef K9EREPL_SUPPORT_TIMING_SET_H
#define K9EREPL_SUPPORT_TIMING_SET_H

#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl {

// Each stopwatch, or counter, sums up the intervals between Start and Stop since the last report.
class TimingSet {
  public:
    // Reads the performance counter's frequency. When the system has none, that is logged, and
    // durations are reported as negative numbers. Throws std::bad_alloc.
    TimingSet();

    // Adds a counter and returns its index. A name that exists keeps its counter, whose index is
    // returned, and is logged as an error. Throws std::bad_alloc. No function below allocates.
    u32 Register(const char* name);

    // Begins an interval. For a counter that runs already, that is logged as an error and what it
    // has gathered is lost. REQUIRES: index came from Register.
    void Start(u32 index);
    // Ends the interval. Does nothing to a counter that does not run: a report in the middle of the
    // interval has ended it. Work that failed leaves its counter running; the next Start clears it.
    // REQUIRES: index came from Register.
    void Stop(u32 index);

    // Logs "<name>: <total> mcs" for every counter in one line, with " (<count> x <mean> mcs)"
    // behind it when there was more than one interval, then sets all counters to 0. Times are in
    // microseconds.
    void Report();

    // Sets every counter to 0; with `all`, removes them, so that their indices mean nothing any
    // more.
    void Reset(bool all);

  private:
    // Bytes for one counter's part of the report, the terminating zero included; longer is cut.
    static constexpr u32 kTextSize = 128;
    struct Counter {
        std::string name;
        i64 start = 0;              // performance counter at Start; 0 when not running
        i64 total = 0;              // ticks of the finished intervals since the last report
        u32 count = 0;              // how many intervals those are
        char text[kTextSize] = {};  // for Report
    };

    static void Clear(Counter& counter);
    void Format(Counter& counter) const;

    double m_ticksPerMicrosecond = -1.0;  // -1 when the system has no performance counter
    std::vector<Counter> m_counters;      // by the index that Register returned
    std::string m_report;                 // the line of Report; keeps its memory
};

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_TIMING_SET_H
