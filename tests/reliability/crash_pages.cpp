// The family of power cuts: pages that were written and not flushed are lost one by one, or come
// out as they were a while before. What a forced flush acknowledged must be there; with the
// asynchronous writer, what OnWriteToFile told of a write that goes through, or else what was
// closed. What was in flight may look complete and not be, unless the commit barrier keeps its
// commit block back: such images are counted.
#include <algorithm>
#include <unordered_set>

#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/power_cut.h"
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
    PowerCuts(GroupRun& run, MemoryDisk& disk, const History& history, const WorkloadPlan& plan)
        : m_run(run), m_disk(disk), m_history(history), m_plan(plan) {}

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
        static std::unordered_set<u64> seen;  // images are distinct in the whole family
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
        const std::string kind = m_plan.commitBarrier  ? "with a barrier"
                                 : !m_plan.async       ? "without a barrier"
                                 : m_plan.writeThrough ? "asynchronous, written through"
                                                       : "asynchronous";
        m_run.Count(kind);
        if (!problem.empty() && !m_plan.commitBarrier &&
            KeepsWhatWasAcknowledged(m_history, range, seen)) {
            m_run.Count("undetectable " + kind);
            return "";
        }
        return problem;
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const History& m_history;
    const WorkloadPlan& m_plan;
    u64 m_number = 0;
};

// Half of the groups have the asynchronous writer, which forces when it ends or writes through.
WorkloadPlan PlanOf(u64 group) {
    const bool async = group % 2 == 1;
    const u64 kind = group / 2;
    return {.operations = 40,
            .async = async,
            .forceFlush = !async || kind % 2 == 0,
            .commitBarrier = !async && kind % 2 == 1,
            .writeThrough = async && kind % 2 == 1,
            .flushEvery = kind % 4 < 2 ? 1U : 3U,
            .blockSize = 16384,  // runs of several pages
            .moreSettings = ""};
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const WorkloadPlan plan = PlanOf(run.Number());
    const History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    PowerCuts(run, disk, history, plan).All();
}

const RegisteredFamily kFamily({.name = "crash-pages",
                                .title = "crash images: pages dropped or reordered",
                                .cases = 20000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
