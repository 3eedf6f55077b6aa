// The mixture of operations, the removal, and the marks behind them; see the header.
#include "reliability/workload.h"

#include <k9erepl/storage.h>

#include <array>
#include <utility>

#include "reliability/driver.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x1000;
// In the order of the kinds of removals, of which each comes twice.
constexpr std::array<u32, 3> kModes = {K9EREPL_CLEAR_LOGICAL, K9EREPL_CLEAR_SQUEEZE,
                                       K9EREPL_CLEAR_SQUEEZE_BACKUP};

// A driver whose changes of the disk are recorded.
class RecordedRun : public Driver {
  protected:
    RecordedRun(MemoryDisk& disk, History& history, u64 seed)
        : Driver(history, seed), m_disk(disk) {}

    void Create() {
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount({});
        CreateAt(m_history.ConnString());
    }
    // What the disk holds now is what the history begins with.
    void StartRecording(const model::Content& content) {
        m_history.base = m_disk.Image();
        m_history.states.push_back(content);
        m_history.marks.emplace_back();
        m_disk.StartRecording();
    }

    using Driver::End;
    // The end of an operation. `forced`: whatever is written is on the disk, too, if flushes are
    // forced.
    void End(bool changed, bool forced) {
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
        if (m_writesThrough || (forced && m_history.settings.forceFlush)) {
            mark.flushed = mark.acknowledged;
        }
        m_history.marks.push_back(mark);
    }

    MemoryDisk& m_disk;
    bool m_writesThrough = false;
    bool m_held = false;  // the threads of the library are
};

class Workload final : public RecordedRun {
  public:
    Workload(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed, History& history)
        : RecordedRun(disk, history, seed), m_plan(plan) {
        model::Settings& settings = m_history.settings;
        settings.blockSize = plan.blockSize > 0 ? plan.blockSize : settings.blockSize;
        if (plan.flushEvery > 0) {
            settings.flushBy = model::FlushBy::kTransactions;
            settings.flushThreshold = static_cast<int>(plan.flushEvery);
        }
        settings.forceFlush = plan.forceFlush;
        settings.commitBarrier = plan.commitBarrier;
        settings.async = plan.async;
        m_writesThrough = plan.writeThrough;
        m_history.moreSettings = plan.moreSettings;
        m_history.moreSettings += plan.writeThrough ? "write_through=yes;" : "";
        // Records of one size end where abandoned ones ended.
        m_recordSize = m_random.OneIn(3) ? m_random.OneOf<u32>({1, 24, 100}) : 0;
        m_history.recordSize = m_recordSize;
    }

    void Run() {
        Create();
        StartRecording({});
        OpenAt(m_history.ConnString());
        End(false, false);
        for (u32 done = 0; done < m_plan.operations && !Ended(); ++done) {
            Step();
        }
        LetGo();
        Close();
        m_history.changes = m_disk.TakeChanges();
    }

  private:
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
            OpenAt(m_history.ConnString());
            End(false, false);
        } else if (m_plan.async) {
            SteadyCalls::Hold();
            m_held = true;
        }
    }

    void Close() {
        if (!m_client.HasHandle() || Ended()) {
            m_client.Close();
            return;
        }
        m_model.BeginClose();
        m_client.Close();
        TellFlushes();
        m_model.EndClose();
        // The asynchronous writer forces once, when it ends.
        End(true, m_plan.async);
    }

    void LetGo() {
        if (std::exchange(m_held, false)) {
            SteadyCalls::Release();
        }
    }

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
        switch (operation) {
            case Operation::kClear: {
                // The asynchronous writer does not force the commit block of a logical clear.
                const bool forces = !m_plan.async || m_clearMode != K9EREPL_CLEAR_LOGICAL;
                return End(true, written == model::Written::kStartOver ||
                                     (forces && written != model::Written::kSoFar));
            }
            case Operation::kStartOver:
                return End(true, written != model::Written::kSoFar);
            case Operation::kMark:
                return End(true, false);
            default:
                return End(flushed, flushed && !m_plan.async);
        }
    }

    const WorkloadPlan m_plan;
};

class Removal final : public RecordedRun {
  public:
    Removal(MemoryDisk& disk, const RemovalPlan& plan, u64 seed, RemovalHistory& result)
        : RecordedRun(disk, result.history, seed), m_plan(plan), m_result(result) {
        m_history.settings.flushBy = model::FlushBy::kTransactions;
        m_history.settings.flushThreshold = 1;
        m_history.settings.forceFlush = plan.forceFlush;
        m_history.settings.async = plan.async;
    }

    void Run() {
        m_disk.SetGate([links = m_plan.hardLinks](const Attempt& attempt) {
            return attempt.call == test::SystemCall::kLink && !links
                       ? Permit{.error = platform::SystemErrorKind::kNotSupported}
                       : Permit{};
        });
        Create();
        OpenAt(m_history.ConnString());
        K9eReplStorageSetLifenum(m_client.Handle(), 7);
        m_model.SetLifenum(7);
        SetBase();
        Remove();
        End(true, true);
        m_result.makesBackup = m_backup == model::Expected::kYes;
        Transaction(5, 0);
        End(true, !m_plan.async);
        m_client.Close();
        End(false, true);
        m_history.changes = m_disk.TakeChanges();
        FindOlderBackup();
    }

  private:
    // What the removal finds.
    void SetBase() {
        Transactions(3 + m_random.Below(4));
        if (m_random.OneIn(2)) {
            Clear(AnyServed(), K9EREPL_CLEAR_SQUEEZE_BACKUP);
        }
        Transactions(4 + m_random.Below(4));
        if (m_random.OneIn(3)) {
            Clear(AnyServed(), K9EREPL_CLEAR_LOGICAL);
        }
        SteadyCalls::Settle();
        m_backup = model::Expected::kNo;
        StartRecording(m_model.FileOnceFlushed());
    }

    void Remove() {
        if (m_plan.kind == RemovalKind::kTruncate) {
            return Truncate();
        }
        const u32 kind = static_cast<u32>(m_plan.kind);
        const bool all = m_plan.kind >= RemovalKind::kClearAllLogically;
        Clear(all ? m_model.NextRev() : AnyServed(), kModes.at(kind % kModes.size()));
    }

    i64 AnyServed() {
        const model::Records& served = m_model.Served();
        return served.empty() ? m_model.NextRev() : m_random.AnyOf(served).first;
    }

    void Clear(i64 rev, u32 mode) {
        m_result.clearRev = rev;
        ClearBelow(rev, mode);
    }

    void Transactions(u32 count) {
        for (; count > 0; --count) {
            Transaction(5);
        }
    }

    void Do(Operation operation, const Call& call, const Call& expect) override {
        const u32 got = call();
        Expect(NameOf(operation), got, expect());
        if (operation == Operation::kClear) {
            m_backup = m_model.LastEffects().backup;
        }
        TellFlushes();
    }

    void FindOlderBackup() {
        if (m_history.base.Find(BackupPath()) == nullptr) {
            return;
        }
        m_disk.Mount(m_history.base);
        Seen seen;
        const Problem problem = Visit(m_history.settings.ConnString(BackupPath()), {}, &seen);
        m_history.problem += problem.empty() ? "" : "older backup: " + problem;
        m_result.olderBackup = std::move(seen);
    }

    const RemovalPlan m_plan;
    model::Expected m_backup = model::Expected::kNo;
    RemovalHistory& m_result;
};

}  // namespace

History MakeHistory(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed) {
    History history;
    Workload(disk, plan, seed, history).Run();
    return history;
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

RemovalHistory MakeRemoval(MemoryDisk& disk, const RemovalPlan& plan, u64 seed) {
    RemovalHistory result;
    Removal(disk, plan, seed, result).Run();
    return result;
}

}  // namespace k9erepl::reliability
