// Exhausted memory inside the C++ library: the n-th operator new of the calling thread fails. Test
// programs that use it get a replacement of the global operators over the C heap.
#ifndef K9EREPL_TESTS_SUPPORT_NEW_FAULT_H
#define K9EREPL_TESTS_SUPPORT_NEW_FAULT_H

#include "platform/int_types.h"

namespace k9erepl::test {

// While it lives, the `nth` operator new of this thread (1 is the next one), of any form, throws
// std::bad_alloc or returns null as its form wants it; once. One at a time in a thread. An
// optimising compiler may leave out allocations of the test itself that nobody sees.
//
//     for (u32 nth = 1;; ++nth) {          // every allocation of an operation, one after the other
//         FailNthNew fault(nth);
//         const u32 result = Operation();
//         if (!fault.Struck()) break;      // it has fewer
//         EXPECT_EQ(result, RC_NO_MEMORY);
//     }
class FailNthNew {
  public:
    explicit FailNthNew(u32 nth);
    ~FailNthNew();
    FailNthNew(const FailNthNew&) = delete;
    FailNthNew& operator=(const FailNthNew&) = delete;

    bool Struck() const;
};

// Asked at every operator new, of any form, in whatever thread: whether it fails. Must allocate
// nothing. Null, as at first, asks nobody. Not to be changed while other threads allocate.
using NewGate = bool (*)();
void SetNewGate(NewGate gate);

// The operator new calls of this thread so far: hot paths show with it that they allocate nothing.
u64 NewCallsOfThisThread();

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_NEW_FAULT_H
