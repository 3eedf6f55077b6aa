// The operations, and what survives when; see the header.
#include "reliability/script_run.h"

#include <k9erepl/storage.h>

#include <iterator>
#include <mutex>
#include <utility>

#include "model/choices.h"
#include "model/model.h"
#include "model/storage_client.h"

namespace k9erepl::reliability {

namespace {

using model::i64;
using model::u32;
using model::u64;

model::Settings SettingsOf(const ScriptPlan& plan, model::Random& random) {
    model::Settings settings;
    settings.blockSize = random.OneOf<u32>({200, 400, 1024, 4096});
    settings.cacheBlocks = random.OneOf<u32>({0, 1, 3});
    settings.indexHint = random.OneOf<u32>({1, 2, 50});
    settings.initialMebibytes = random.OneIn(6) ? 1 : 0;
    settings.deltaMebibytes = random.OneIn(4) ? 1 : 0;
    settings.forceFlush = plan.forceFlush;
    settings.async = plan.async;
    settings.asyncKilobytes = random.OneOf<std::optional<u32>>({std::nullopt, 0, 1, 64});
    return settings;
}

// Which operation the revisions that the writing thread tells belong to.
class WrittenWatch {
  public:
    explicit WrittenWatch(const ScriptHooks& hooks) : m_hooks(hooks) {}

    // Before the commit that may write up to `rev`.
    void Expect(i64 rev, u32 operation) {
        const std::lock_guard lock(m_mutex);
        m_expected.emplace_back(rev, operation);
    }
    // Everything so far is written: revisions may fall from now on.
    void Settle(u32 operation) {
        const std::lock_guard lock(m_mutex);
        m_expected.clear();
        Tell(operation);
    }
    static void K9EREPL_CALL OnWritten(i64 rev, void* watch) {
        auto& self = *static_cast<WrittenWatch*>(watch);
        const std::lock_guard lock(self.m_mutex);
        for (auto at = self.m_expected.rbegin(); at != self.m_expected.rend(); ++at) {
            if (at->first <= rev) {
                return self.Tell(at->second);
            }
        }
    }

  private:
    void Tell(u32 operation) const {
        if (m_hooks.acknowledges) {
            m_hooks.acknowledges(operation);
        }
    }

    const ScriptHooks& m_hooks;
    std::mutex m_mutex;
    std::vector<std::pair<i64, u32>> m_expected;  // guarded by m_mutex
};

class Script {
  public:
    Script(const std::string& path, const ScriptPlan& plan, u64 seed, const ScriptHooks& hooks)
        : m_plan(plan), m_hooks(hooks), m_random(seed), m_written(hooks) {
        m_result.settings = SettingsOf(plan, m_random);
        m_connString = m_result.settings.ConnString(path);
    }

    ScriptResult Run() {
        Operation([this] { Create(); });
        Operation([this] { Open(); });
        while (Goes() && m_number < m_plan.operations) {
            Operation([this] { Step(); });
        }
        Operation([this] { Close(); });
        m_client.Close();
        return std::move(m_result);
    }

  private:
    bool Goes() const { return m_result.problem.empty(); }

    template <typename Body>
    void Operation(Body body) {
        if (!Goes()) {
            return;
        }
        if (m_hooks.begins) {
            m_hooks.begins(m_number);
        }
        m_settles = !m_plan.async;
        body();
        if (Goes()) {
            m_result.states.push_back(m_model.IsOpen() ? m_model.File() : m_closed);
            if (m_settles) {
                m_written.Settle(m_number);
            }
            ++m_number;
        }
    }

    void Step() {
        const u32 ticket = m_random.Below(100);
        if (ticket < 64) {
            Transact();
        } else if (ticket < 84) {
            const u32 mode = m_random.OneOf<u32>(
                {K9EREPL_CLEAR_LOGICAL, K9EREPL_CLEAR_SQUEEZE, K9EREPL_CLEAR_SQUEEZE_BACKUP});
            Clear(AnyServed(), mode);
        } else if (ticket < 88 && m_plan.startsOver) {
            StartOver();
        } else if (ticket < 92) {
            m_model.SetLifenum(ticket);
            Expect("SetLifenum", K9eReplStorageSetLifenum(m_client.Handle(), ticket), RC_OK);
        } else {
            Close();
            Open();
        }
    }

    void Create() {
        Expect("Create", K9eReplStorageCreate(m_connString.c_str(), 0), RC_OK);
        m_settles = true;
    }

    void Open() {
        Expect("Open", m_client.Open(m_connString), RC_OK);
        if (!Goes()) {
            return;
        }
        K9eReplStorageSetOnWriteToFileCallback(m_client.Handle(), &WrittenWatch::OnWritten,
                                               &m_written);
        m_model.Open(m_result.settings);
        const u32 expected = m_model.Load();
        Expect("Load", K9eReplStorageLoad(m_client.Handle()), expected);
        if (Goes() && !m_model.AdoptNextRev(m_client.NextRev())) {
            m_result.problem = "Load: next revision";
        }
        m_settles = true;
    }

    void Close() {
        m_model.BeginClose();
        void* const handle = m_client.Handle();
        K9eReplStorageSetOnWriteToFileCallback(handle, nullptr, nullptr);
        m_client.Close();
        TellFlushes();
        m_model.EndClose();
        m_closed = m_result.states.back();
        m_settles = true;
    }

    void Transact() {
        void* const handle = m_client.Handle();
        Expect("Begin", K9eReplStorageBeginTransaction(handle), m_model.Begin());
        for (u32 left = 1 + m_random.Below(5); left > 0; --left) {
            Insert();
        }
        if (m_random.OneIn(8)) {
            Expect("Rollback", K9eReplStorageRollback(handle), m_model.Rollback());
            return;
        }
        m_written.Expect(m_model.NextRev() - 1, m_number);
        Expect("Commit", K9eReplStorageCommit(handle), m_model.Commit());
        TellFlushes();
    }

    void Insert() {
        const u32 size = m_random.OneIn(8) ? m_result.settings.blockSize - model::kRecordOverhead
                                           : m_random.Below(120);
        const auto planned =
            model::MakeRecord({model::SizeClass::kBytes, size}, m_result.settings.blockSize,
                              static_cast<u32>(m_random.Next()));
        i64 got = 0;
        i64 rev = 0;
        const u32 rc = m_client.Insert(planned, nullptr, &got);
        Expect("Insert", rc, m_model.Insert(planned.record, planned.Need(), &rev));
    }

    i64 AnyServed() {
        const model::Records& served = m_model.Served();
        return served.empty()
                   ? m_model.NextRev()
                   : std::next(served.begin(), m_random.Below(static_cast<u32>(served.size())))
                         ->first;
    }

    void Clear(i64 rev, u32 mode) {
        const u32 rc = K9eReplStorageClearOldRev(m_client.Handle(), rev, mode);
        Expect("Clear", rc, m_model.Clear(rev, mode));
        m_settles |= m_model.LastEffects().written != model::Written::kSoFar;
        TellFlushes();
    }

    void StartOver() {
        if (m_random.OneIn(2)) {
            return Clear(m_model.NextRev(), m_random.Below(3));
        }
        Expect("Truncate", K9eReplStorageTruncate(m_client.Handle()), m_model.Truncate());
        TellFlushes();
        m_settles = true;
    }

    void TellFlushes() {
        for (const i64 rev : m_client.TakeFlushed()) {
            m_model.Flushed(rev);
        }
    }

    void Expect(const char* name, u32 got, u32 expected) {
        if (got != expected && Goes()) {
            m_result.problem = std::string(name) + " answers " + std::to_string(got);
            m_result.failed = m_number;
            m_result.code = got;
        }
    }

    const ScriptPlan m_plan;
    const ScriptHooks& m_hooks;
    model::Random m_random;
    WrittenWatch m_written;
    std::string m_connString;
    model::Model m_model;
    ScriptResult m_result;
    model::Content m_closed;  // what the closed file holds
    u32 m_number = 0;
    bool m_settles = false;         // the present operation leaves nothing to be written
    model::StorageClient m_client;  // last: what it tells while it closes has somewhere to go
};

}  // namespace

ScriptResult RunScript(const std::string& path, const ScriptPlan& plan, u64 seed,
                       const ScriptHooks& hooks) {
    return Script(path, plan, seed, hooks).Run();
}

}  // namespace k9erepl::reliability
