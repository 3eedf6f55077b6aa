// The family of the full disk: its space runs out at every 512 bytes of a run, and comes back after
// the first failure.
#include <k9erepl/storage.h>

#include <algorithm>

#include "reliability/family.h"
#include "reliability/fault_trial.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr i64 kStep = 512;
constexpr i64 kCasesOfAGroup = 40;

class FullDisk final : public Fault {
  public:
    FullDisk(MemoryDisk& disk, i64 capacity, bool holesCount)
        : m_disk(disk), m_capacity(capacity), m_holesCount(holesCount) {}
    ~FullDisk() override { m_disk.SetCapacity(-1, false); }
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

    void Resume() override {
        if (!m_healed) {
            m_disk.SetCapacity(m_capacity, m_holesCount);
        }
    }
    void Suspend() override { Lift(); }
    void Leave() override { m_most = std::max(m_most, m_disk.UsedBytes(m_holesCount)); }
    void Heal() override {
        Lift();
        m_healed = true;
    }
    bool Struck() const override { return m_struck || m_disk.FullCount() > 0; }
    bool MayHurtWriter() const override { return Struck(); }
    bool Explains(Operation /*operation*/, u32 code) const override {
        return code == RC_SYSTEM_ERROR;
    }

    // The most that was in use between two calls.
    i64 Most() const { return m_most; }

  private:
    void Lift() {
        m_struck = Struck();
        m_disk.SetCapacity(-1, false);
    }

    MemoryDisk& m_disk;
    const i64 m_capacity;
    const bool m_holesCount;
    bool m_healed = false;
    bool m_struck = false;
    i64 m_most = 0;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    // File systems differ in whether a file that was only sized ahead has its space.
    const bool holesCount = run.Number() % 2 == 1;
    const TrialPlan plan{.operations = 24,
                         .async = run.Number() % 4 == 2,
                         .forceFlush = run.Number() % 3 == 0,
                         .preallocates = run.Number() % 8 < 2,
                         .moreSettings = ""};
    FullDisk roomy(disk, -1, holesCount);
    const TrialResult undisturbed = RunTrial(disk, plan, roomy, run.Seed());
    run.Case(0, [&] { return undisturbed.problem; });
    const i64 steps = roomy.Most() / kStep + 1;
    const i64 stride = (steps + kCasesOfAGroup - 1) / kCasesOfAGroup;
    for (i64 step = 0; step <= steps; step += stride) {
        run.Case(static_cast<u64>(step) + 1, [&] {
            FullDisk fault(disk, step * kStep, holesCount);
            const TrialResult result = RunTrial(disk, plan, fault, run.Seed());
            run.Count("found the disk full", fault.Struck() ? 1 : 0);
            run.Count("went on without reopening", result.wentOn ? 1 : 0);
            run.Count("went on reopened", result.reopened ? 1 : 0);
            run.Count("damaged as documented", result.damaged ? 1 : 0);
            const std::string room = std::to_string(step * kStep) + " bytes of disk: ";
            return result.problem.empty() ? "" : room + result.problem;
        });
    }
}

const RegisteredFamily kFamily({.name = "disk-full",
                                .title = "the disk is full at every 512 bytes, then space returns",
                                .cases = 300,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
