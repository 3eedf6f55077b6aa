// Makes threads take turns at other places from seed to seed: around calls of the table of system
// calls a thread now and then gives the processor away. Used by the row of threads.
#ifndef K9EREPL_TESTS_RELIABILITY_YIELDING_CALLS_H
#define K9EREPL_TESTS_RELIABILITY_YIELDING_CALLS_H

#include "platform/system_calls.h"

namespace k9erepl::reliability {

// While it lives every entry of the table but those for clocks yields before and behind what it
// did before, with a probability that follows from the seed. One at a time, begun before and ended
// after every storage. Which call yields follows from the seed and from the calls' order, which is
// the machine's: a seed that failed once may need several runs.
class YieldingCalls {
  public:
    explicit YieldingCalls(u64 seed);
    ~YieldingCalls();
    YieldingCalls(const YieldingCalls&) = delete;
    YieldingCalls& operator=(const YieldingCalls&) = delete;

    // So far.
    static u64 Yields();
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_YIELDING_CALLS_H
