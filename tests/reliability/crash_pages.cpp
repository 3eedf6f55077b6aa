// The row of power cuts: pages that were written and not flushed are lost one by one, or come out
// as they were a while before. What a forced flush acknowledged must be there. A run that was in
// flight may look complete and not be, unless the commit barrier keeps its commit block back: such
// images are counted.
#include <algorithm>
#include <unordered_set>

#include "reliability/oracle.h"
#include "reliability/power_cut.h"
#include "reliability/row.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

// Whether everything that was acknowledged is there as it was, or cleared by what was in flight:
// what is wrong belongs to a run that nobody was promised.
bool KeepsWhatWasAcknowledged(const History& history, StateRange range, const Seen& seen) {
    const auto isClearedSince = [&](i64 rev) {
        const auto first = history.states.begin() + static_cast<std::ptrdiff_t>(range.low);
        const auto end = history.states.begin() + static_cast<std::ptrdiff_t>(range.high) + 1;
        return std::any_of(
            first, end, [&](const model::Content& state) { return !state.records.contains(rev); });
    };
    const model::Records& acknowledged = history.states[range.low].records;
    return std::all_of(acknowledged.begin(), acknowledged.end(), [&](const auto& entry) {
        const auto found = seen.records.find(entry.first);
        return found == seen.records.end() ? isClearedSince(entry.first)
                                           : found->second == entry.second;
    });
}

class PowerCuts {
  public:
    PowerCuts(GroupRun& run, MemoryDisk& disk, const History& history, bool barrier)
        : m_run(run), m_disk(disk), m_history(history), m_barrier(barrier) {}

    void All() {
        PowerCut cut(m_history.base);
        for (std::size_t done = 0; done <= m_history.changes.size(); ++done) {
            for (u32 fate = 0; fate < kPageFates; ++fate) {
                One(cut, done, static_cast<PageFate>(fate));
            }
            if (done < m_history.changes.size()) {
                cut.Do(m_history.changes[done]);
            }
        }
    }

  private:
    void One(const PowerCut& cut, std::size_t done, PageFate fate) {
        if (!m_run.Wants(++m_number)) {
            return;
        }
        const StateRange range = m_history.AfterPowerCut(done);
        model::Random random(m_run.Seed() + m_number);
        const DiskImage image = cut.Leave(fate, random);
        static std::unordered_set<u64> seen;  // images are distinct in the whole row
        if (!seen.insert(Mix(image.Hash(), Mix(range.low, range.high))).second) {
            return;
        }
        m_run.Keep(image, m_history.changes, done);
        m_run.Case(m_number, [&] {
            return Examine(m_disk, image, m_history, m_number,
                           [&](const Seen& content) { return Judge(range, content); });
        });
    }

    Problem Judge(StateRange range, const Seen& seen) {
        Problem problem = JudgeByStates(m_history, range, seen);
        if (!problem.empty() && !m_barrier && KeepsWhatWasAcknowledged(m_history, range, seen)) {
            m_run.Count("undetectable");
            return "";
        }
        m_run.Count(m_barrier ? "with a barrier" : "without a barrier");
        return problem;
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const History& m_history;
    const bool m_barrier;
    u64 m_number = 0;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const bool barrier = run.Number() % 2 == 1;
    const WorkloadPlan plan{.operations = 40,
                            .forceFlush = true,
                            .commitBarrier = barrier,
                            .flushEvery = run.Number() % 4 < 2 ? 1U : 3U,
                            .blockSize = 16384,  // runs of several pages
                            .moreSettings = ""};
    const History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    PowerCuts(run, disk, history, barrier).All();
}

const RegisteredRow kRow({.name = "crash-pages",
                          .title = "crash images: pages dropped or reordered",
                          .cases = 20000,
                          .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
