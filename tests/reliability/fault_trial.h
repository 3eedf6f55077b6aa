// A client that goes on when calls fail: random operations on a storage in a MemoryDisk, under a
// fault, with a model beside it. Each answer that differs from the undisturbed one must be a code
// that the operation documents, logged, and leave the storage in a documented state; once the fault
// is gone the storage goes on from there or, opened again, holds what was acknowledged. The
// families of failing calls are made of it; each brings a Fault.
#ifndef K9EREPL_TESTS_RELIABILITY_FAULT_TRIAL_H
#define K9EREPL_TESTS_RELIABILITY_FAULT_TRIAL_H

#include <memory>

#include "reliability/driver.h"
#include "reliability/memory_disk.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// What goes wrong during a trial. Acts between Resume and Suspend, at first not.
class Fault {
  public:
    virtual ~Fault() = default;
    virtual void Resume() = 0;
    virtual void Suspend() = 0;
    // Around each call of the library, which the trial's own work is not part of.
    virtual void Enter() {}
    virtual void Leave() {}
    // Nothing goes wrong from now on.
    virtual void Heal() = 0;
    // Whether something went wrong so far.
    virtual bool Struck() const = 0;
    // Whether that may have kept an asynchronous writer from writing what it has acknowledged.
    virtual bool MayHurtWriter() const = 0;
    // Whether `operation` may answer `code` on account of it.
    virtual bool Explains(Operation operation, u32 code) const = 0;
};

struct TrialPlan {
    u32 operations = 14;
    bool async = false;
    bool forceFlush = false;
    bool commitBarrier = false;
    bool removes = true;       // clears and truncations, too
    bool preallocates = true;  // files may be sized and grown by MiBs
    u32 blockSize = 0;         // 0: the seed says
    u32 recordSize = 0;        // bytes of data of every record; 0: the seed says
    std::string moreSettings;  // win; end with ';' unless empty
};

struct TrialResult {
    Problem problem;        // a promise that was broken; empty: none
    History history;        // with what may be in the file after failed operations among its states
    DiskImage left;         // what the last closing left, before the deletion
    u32 failures = 0;       // calls that answered a failure
    bool wentOn = false;    // and the same handle was of use again
    bool reopened = false;  // and the storage had to be opened again
    bool damaged = false;   // a failed clear of everything left no readable file, as documented
};

// REQUIRES: a SteadyCalls lives; nothing is open on `disk`, which is used and left closed.
TrialResult RunTrial(MemoryDisk& disk, const TrialPlan& plan, Fault& fault, u64 seed);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FAULT_TRIAL_H
