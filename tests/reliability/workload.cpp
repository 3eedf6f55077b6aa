// The mixture of operations, and the marks behind them; see the header.
#include "reliability/workload.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <optional>

#include "model/choices.h"
#include "model/model.h"
#include "model/storage_client.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

using model::RevPlace;
using model::SizeChoice;
using model::SizeClass;

constexpr u32 kFirstStamp = 0x1000;

model::Settings SettingsOf(const WorkloadPlan& plan, model::Random& random) {
    model::Settings settings;
    settings.blockSize =
        plan.blockSize > 0 ? plan.blockSize : random.OneOf<u32>({200, 400, 1024, 4096});
    settings.cacheBlocks = random.OneOf<u32>({0, 1, 2, 7});
    settings.flushBy = model::FlushBy::kTransactions;
    settings.flushThreshold = static_cast<int>(plan.flushEvery);
    if (plan.flushEvery == 0 && random.OneIn(4)) {
        settings.flushBy = model::FlushBy::kData;
        settings.flushThreshold = random.OneOf({1, 500});
    } else if (plan.flushEvery == 0) {
        settings.flushThreshold = random.OneOf({1, 1, 1, 3});
    }
    settings.indexHint = random.OneOf<u32>({1, 2, 50});
    settings.initialMebibytes = random.OneIn(6) ? 1 : 0;
    settings.deltaMebibytes = random.OneIn(4) ? 1 : 0;
    settings.forceFlush = plan.forceFlush;
    settings.commitBarrier = plan.commitBarrier;
    settings.async = plan.async;
    settings.asyncKilobytes = random.OneOf<std::optional<u32>>({std::nullopt, 0, 1, 64});
    return settings;
}

class Workload {
  public:
    Workload(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed)
        : m_disk(disk), m_plan(plan), m_random(seed) {
        m_history.settings = SettingsOf(plan, m_random);
        m_history.moreSettings = plan.moreSettings;
        m_history.moreSettings += plan.writeThrough ? "write_through=yes;" : "";
        // Records of one size end where abandoned ones ended.
        m_history.recordSize = m_random.OneIn(3) ? m_random.OneOf<u32>({1, 24, 100}) : 0;
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
            Transaction();
        } else if (ticket < 74) {
            Insert();
        } else if (ticket < 84) {
            Clear();
        } else if (ticket < 86) {
            StartOver();
        } else if (ticket < 90) {
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

    void Transaction() {
        void* const handle = m_client.Handle();
        Do("Begin", K9eReplStorageBeginTransaction(handle), m_model.Begin());
        const bool nested = m_random.OneIn(6);
        if (nested) {
            Do("Begin", K9eReplStorageBeginTransaction(handle), m_model.Begin());
        }
        for (u32 left = m_random.Below(5); left > 0; --left) {
            Insert();
        }
        if (m_random.OneIn(8)) {
            Do("Rollback", K9eReplStorageRollback(handle), m_model.Rollback());
            return;
        }
        for (u32 left = nested ? 2 : 1; left > 0; --left) {
            Do("Commit", K9eReplStorageCommit(handle), m_model.Commit());
        }
    }

    SizeChoice AnySize() {
        if (m_history.recordSize > 0) {
            return {SizeClass::kBytes, m_history.recordSize};
        }
        switch (m_random.Below(8)) {
            case 0:
                return {SizeClass::kBytes, 0};
            case 1:
                return {SizeClass::kFits, m_random.Below(3)};
            case 2:
                return {SizeClass::kPermille, m_random.Below(1000)};
            default:
                return {SizeClass::kBytes, m_random.Below(120)};
        }
    }

    void Insert() {
        const auto planned = model::MakeRecord(AnySize(), m_history.settings.blockSize,
                                               static_cast<u32>(m_random.Next()));
        i64 got = 0;
        if (m_random.OneIn(4)) {
            const i64 rev = m_model.NextRev() + m_random.OneOf<i64>({0, 1, 10, 1000});
            const u32 rc = m_client.Insert(planned, &rev, &got);
            Do("InsertP", rc, m_model.InsertPrepared(rev, planned.record, planned.Need()));
        } else {
            i64 rev = 0;
            const u32 rc = m_client.Insert(planned, nullptr, &got);
            Do("Insert", rc, m_model.Insert(planned.record, planned.Need(), &rev));
        }
    }

    void Clear() {
        LetGo();
        const model::RevChoice choice{
            m_random.OneOf({RevPlace::kKept, RevPlace::kKept, RevPlace::kOldest, RevPlace::kNext}),
            m_random.Below(1000), m_random.OneOf<i64>({0, 0, 1, -1})};
        const i64 rev = model::Resolve(choice, m_model);
        const u32 mode = m_random.OneOf<u32>({0, 0, 0, 1, 1, 2, 2});
        // The flush that a clear begins with is a state of its own.
        m_history.states.push_back(m_model.FileOnceFlushed());
        const u32 rc = K9eReplStorageClearOldRev(m_client.Handle(), rev, mode);
        Expect("Clear", rc, m_model.Clear(rev, mode));
        const model::Written written = m_model.LastEffects().written;
        TellFlushes();
        // The asynchronous writer does not force the commit block of a logical clear.
        const bool forces = !m_history.settings.async || mode != K9EREPL_CLEAR_LOGICAL;
        End(true,
            written == model::Written::kStartOver || (forces && written != model::Written::kSoFar));
    }

    void StartOver() {
        LetGo();
        if (m_random.OneIn(2)) {
            Expect("Truncate", K9eReplStorageTruncate(m_client.Handle()), m_model.Truncate());
        } else {
            m_history.states.push_back(m_model.FileOnceFlushed());
            Expect("ClearAll", K9eReplStorageClearAll(m_client.Handle(), 0), m_model.ClearAll(0));
        }
        const bool cleared = m_model.LastEffects().written != model::Written::kSoFar;
        TellFlushes();
        End(true, cleared);
    }

    void SetMark() {
        LetGo();
        const u32 number = m_random.Below(1000);
        if (m_random.OneIn(2)) {
            m_model.SetLifenum(number);
            Expect("SetLifenum", K9eReplStorageSetLifenum(m_client.Handle(), number), RC_OK);
        } else {
            const u32 rc = K9eReplStorageClearOldRev(m_client.Handle(), number, K9EREPL_CLEAR_MARK);
            Expect("Mark", rc, m_model.Clear(number, K9EREPL_CLEAR_MARK));
        }
        End(true);
    }

    void LetGo() {
        if (m_held) {
            m_held = false;
            SteadyCalls::Release();
        }
    }

    // --- What follows an operation

    void Do(const char* name, u32 got, u32 expected) {
        Expect(name, got, expected);
        const bool flushed = TellFlushes();
        End(flushed, flushed && !m_history.settings.async);
    }

    void Expect(const char* name, u32 got, u32 expected) {
        if (got != expected && m_history.problem.empty()) {
            m_history.problem = std::string(name) + ": " + std::to_string(got) + ", expected " +
                                std::to_string(expected);
        }
    }

    // The model hears which flushes the library made; whether there was one.
    bool TellFlushes() {
        const std::vector<i64> flushed = m_client.TakeFlushed();
        for (const i64 rev : flushed) {
            m_model.Flushed(rev);
        }
        return !flushed.empty();
    }

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
    model::Random m_random;
    model::StorageClient m_client;
    model::Model m_model;
    History m_history;
    bool m_held = false;
};

}  // namespace

History MakeHistory(MemoryDisk& disk, const WorkloadPlan& plan, u64 seed) {
    return Workload(disk, plan, seed).Run();
}

}  // namespace k9erepl::reliability
