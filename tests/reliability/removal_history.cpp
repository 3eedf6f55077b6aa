// What comes before the removal, the removal, and the marks behind it; see the header.
#include "reliability/removal_history.h"

#include <k9erepl/storage.h>

#include <iterator>
#include <utility>

#include "reliability/driver.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x1000;

class Removal final : public Driver {
  public:
    Removal(MemoryDisk& disk, const RemovalPlan& plan, u64 seed)
        : Driver(seed), m_disk(disk), m_plan(plan) {
        m_history.settings = AnySettings();
        m_history.settings.flushBy = model::FlushBy::kTransactions;
        m_history.settings.flushThreshold = 1;
        m_history.settings.forceFlush = plan.forceFlush;
        m_history.settings.async = plan.async;
    }

    RemovalHistory Run() {
        Begin();
        SetBase();
        Remove();
        End(true, true);
        m_result.makesBackup = m_backup == model::Expected::kYes;
        Transaction(5, 0);
        End(true, !m_plan.async);
        m_client.Close();
        SteadyCalls::Settle();
        End(false, true);
        m_history.changes = m_disk.TakeChanges();
        FindOlderBackup();
        return std::move(m_result);
    }

  private:
    void Begin() {
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.SetGate([links = m_plan.hardLinks](const Attempt& attempt) {
            return attempt.call == test::SystemCall::kLink && !links
                       ? Permit{.error = platform::SystemErrorKind::kNotSupported}
                       : Permit{};
        });
        m_disk.Mount({});
        Expect("Create", K9eReplStorageCreate(m_history.ConnString().c_str(), 0), RC_OK);
        Expect("Open", m_client.Open(m_history.ConnString()), RC_OK);
        m_model.Open(m_history.settings);
        Expect("Load", K9eReplStorageLoad(m_client.Handle()), m_model.Load());
        m_history.problem += m_model.AdoptNextRev(m_client.NextRev()) ? "" : "Load: next revision";
        K9eReplStorageSetLifenum(m_client.Handle(), 7);
        m_model.SetLifenum(7);
    }

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
        m_history.base = m_disk.Image();
        m_history.states.push_back(m_model.FileOnceFlushed());
        m_history.marks.emplace_back();
        m_disk.StartRecording();
    }

    void Remove() {
        switch (m_plan.kind) {
            case RemovalKind::kClearLogically:
                return Clear(AnyServed(), K9EREPL_CLEAR_LOGICAL);
            case RemovalKind::kSqueeze:
                return Clear(AnyServed(), K9EREPL_CLEAR_SQUEEZE);
            case RemovalKind::kSqueezeBackup:
                return Clear(AnyServed(), K9EREPL_CLEAR_SQUEEZE_BACKUP);
            case RemovalKind::kClearAllLogically:
                return Clear(m_model.NextRev(), K9EREPL_CLEAR_LOGICAL);
            case RemovalKind::kClearAllSqueeze:
                return Clear(m_model.NextRev(), K9EREPL_CLEAR_SQUEEZE);
            case RemovalKind::kClearAllBackup:
                return Clear(m_model.NextRev(), K9EREPL_CLEAR_SQUEEZE_BACKUP);
            case RemovalKind::kTruncate:
                return Truncate();
        }
    }

    i64 AnyServed() {
        const model::Records& served = m_model.Served();
        if (served.empty()) {
            return m_model.NextRev();
        }
        const u32 place = m_random.Below(static_cast<u32>(served.size()));
        return std::next(served.begin(), place)->first;
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

    bool Ended() const override { return !m_history.problem.empty(); }

    void Do(Operation operation, const Call& call, const Call& expect) override {
        const u32 got = call();
        Expect(NameOf(operation), got, expect());
        if (operation == Operation::kClear) {
            m_backup = m_model.LastEffects().backup;
        }
        TellFlushes();
    }

    using Driver::End;
    void End(bool changed, bool forced) {
        SteadyCalls::Settle();
        if (changed) {
            m_history.states.push_back(m_model.File());
        }
        Mark mark = m_history.marks.back();
        mark.changes = m_disk.ChangeCount();
        mark.begun = mark.acknowledged = m_history.states.size() - 1;
        mark.flushed = forced && m_plan.forceFlush ? mark.begun : mark.flushed;
        m_history.marks.push_back(mark);
    }

    void Expect(const char* name, u32 got, u32 expected) {
        if (got != expected && m_history.problem.empty()) {
            m_history.problem = std::string(name) + ": " + std::to_string(got) + ", expected " +
                                std::to_string(expected);
        }
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

    MemoryDisk& m_disk;
    const RemovalPlan m_plan;
    model::Expected m_backup = model::Expected::kNo;
    RemovalHistory m_result;
    History& m_history = m_result.history;
};

}  // namespace

RemovalHistory MakeRemoval(MemoryDisk& disk, const RemovalPlan& plan, u64 seed) {
    return Removal(disk, plan, seed).Run();
}

}  // namespace k9erepl::reliability
