// Threads, events and clocks that make a run repeatable: time stands still, commit blocks get
// stamps from a counter, and a test can wait until no thread of the library has anything to do.
#ifndef K9EREPL_TESTS_RELIABILITY_STEADY_CALLS_H
#define K9EREPL_TESTS_RELIABILITY_STEADY_CALLS_H

#include "support/call_layer.h"

namespace k9erepl::reliability {

// While it lives the entries for events, thread creation and clocks of the table are its own. One
// at a time, begun before and ended after every storage.
class SteadyCalls : test::CallLayer<SteadyCalls> {
  public:
    SteadyCalls();

    // The next time stamp; each later one is 1 more. The stamps of a run and of what follows its
    // crash must differ, as they do in life.
    static void SetStamp(u32 first);
    // Waits until every thread of the library waits for an event that is not set.
    // REQUIRES: no call into the library is under way, and nothing is held.
    static void Settle();
    // Threads of the library that wait do not go on, whatever they wait for, until Release. What
    // they are asked to do meanwhile piles up: one waking finds all of it.
    static void Hold();
    static void Release();

  private:
    friend test::CallLayer<SteadyCalls>;
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_STEADY_CALLS_H
