// The mixture of operations, and the marks behind them; see the header.
#include "reliability/workload.h"

#include <k9erepl/storage.h>

#include "reliability/driver.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x1000;

class Workload final : public Driver {
  public:
    Workload(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed)
        : Driver(seed), m_disk(disk), m_plan(plan) {
        model::Settings& settings = m_history.settings = AnySettings();
        settings.blockSize = plan.blockSize > 0 ? plan.blockSize : settings.blockSize;
        if (plan.flushEvery > 0) {
            settings.flushBy = model::FlushBy::kTransactions;
            settings.flushThreshold = static_cast<int>(plan.flushEvery);
        }
        settings.forceFlush = plan.forceFlush;
        settings.commitBarrier = plan.commitBarrier;
        settings.async = plan.async;
        m_history.moreSettings = plan.moreSettings;
        m_history.moreSettings += plan.writeThrough ? "write_through=yes;" : "";
        // Records of one size end where abandoned ones ended.
        m_recordSize = m_random.OneIn(3) ? m_random.OneOf<u32>({1, 24, 100}) : 0;
        m_history.recordSize = m_recordSize;
    }

    History Run() {
        Begin();
        for (u32 done = 0; done < m_plan.operations && m_history.problem.empty(); ++done) {
            Step();
        }
        LetGo();
        Close();
        m_history.changes = m_disk.TakeChanges();
        return std::move(m_history);
    }

  private:
    void Begin() {
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount({});
        Expect("Create", K9eReplStorageCreate(m_history.ConnString().c_str(), 0), RC_OK);
        m_history.base = m_disk.Image();
        m_history.states.emplace_back();
        m_history.marks.emplace_back();
        m_disk.StartRecording();
        Open();
    }

    void Step() {
        const u32 ticket = m_random.Below(100);
        if (ticket < 60 || (!m_plan.removes && ticket < 90)) {
            Transaction(4);
        } else if (ticket < 74) {
            Insert();
        } else if (ticket < 84) {
            Clear();
        } else if (ticket < 86) {
            StartOver();
        } else if (ticket < 90) {
            LetGo();
            SetMark();
        } else if (ticket < 94) {
            LetGo();
            Close();
            Open();
        } else if (m_history.settings.async) {
            SteadyCalls::Hold();
            m_held = true;
        }
    }

    // --- Operations

    void Open() {
        Expect("Open", m_client.Open(m_history.ConnString()), RC_OK);
        m_model.Open(m_history.settings);
        if (m_history.problem.empty()) {
            const u32 loaded = K9eReplStorageLoad(m_client.Handle());
            Expect("Load", loaded, m_model.Load());
            m_history.problem +=
                m_model.AdoptNextRev(m_client.NextRev()) ? "" : "Load: next revision";
        }
        End(false);
    }

    void Close() {
        if (!m_client.HasHandle() || !m_history.problem.empty()) {
            m_client.Close();
            return;
        }
        m_model.BeginClose();
        m_client.Close();
        TellFlushes();
        m_model.EndClose();
        // The asynchronous writer forces once, when it ends.
        End(true, m_history.settings.async);
    }

    void LetGo() {
        if (m_held) {
            m_held = false;
            SteadyCalls::Release();
        }
    }

    // --- What follows an operation

    bool Ended() const override { return !m_history.problem.empty(); }

    void BeforeRemoval(bool truncates) override {
        LetGo();
        if (!truncates) {
            // The flush that a clear begins with is a state of its own.
            m_history.states.push_back(m_model.FileOnceFlushed());
        }
    }

    void Do(Operation operation, const Call& call, const Call& expect) override {
        const u32 got = call();
        Expect(NameOf(operation), got, expect());
        const model::Written written = m_model.LastEffects().written;
        const bool flushed = TellFlushes();
        const bool async = m_history.settings.async;
        switch (operation) {
            case Operation::kClear: {
                // The asynchronous writer does not force the commit block of a logical clear.
                const bool forces = !async || m_clearMode != K9EREPL_CLEAR_LOGICAL;
                return End(true, written == model::Written::kStartOver ||
                                     (forces && written != model::Written::kSoFar));
            }
            case Operation::kStartOver:
                return End(true, written != model::Written::kSoFar);
            case Operation::kMark:
                return End(true);
            default:
                return End(flushed, flushed && !async);
        }
    }

    void Expect(const char* name, u32 got, u32 expected) {
        if (got != expected && m_history.problem.empty()) {
            m_history.problem = std::string(name) + ": " + std::to_string(got) + ", expected " +
                                std::to_string(expected);
        }
    }

    using Driver::End;
    // `forced`: whatever is written is on the disk, too, if flushes are forced.
    void End(bool changed, bool forced = false) {
        if (!m_held) {
            SteadyCalls::Settle();
        }
        if (changed) {
            m_history.states.push_back(m_model.File());
        }
        Mark mark = m_history.marks.back();
        mark.changes = m_disk.ChangeCount();
        mark.begun = m_history.states.size() - 1;
        // What is held back may wait in the queue.
        if (!m_held) {
            mark.acknowledged = mark.begun;
        }
        if (m_plan.writeThrough || (forced && m_history.settings.forceFlush)) {
            mark.flushed = mark.acknowledged;
        }
        m_history.marks.push_back(mark);
    }

    MemoryDisk& m_disk;
    const WorkloadPlan m_plan;
    History m_history;
    bool m_held = false;
};

}  // namespace

History MakeHistory(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed) {
    return Workload(disk, plan, seed).Run();
}

History MakeHistory(MemoryDisk& disk, GroupRun& run) {
    const WorkloadPlan plan{.operations = 40,
                            .async = run.Number() % 2 == 1,
                            .forceFlush = run.Number() % 5 == 0,
                            .moreSettings = ""};
    History history = MakeHistory(disk, plan, run.Seed());
    run.Case(0, [&] { return history.problem; });
    return history;
}

}  // namespace k9erepl::reliability
