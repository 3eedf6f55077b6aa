// The operations, and what survives when; see the header.
#include "reliability/script_run.h"

#include <k9erepl/storage.h>

#include <mutex>
#include <utility>

#include "reliability/driver.h"

namespace k9erepl::reliability {

namespace {

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

class Script final : public Driver {
  public:
    Script(const std::string& path, const ScriptPlan& plan, u64 seed, const ScriptHooks& hooks)
        : Driver(seed), m_plan(plan), m_hooks(hooks), m_written(hooks) {
        m_result.settings = AnySettings();
        m_result.settings.flushBy = model::FlushBy::kTransactions;
        m_result.settings.flushThreshold = 1;
        m_result.settings.forceFlush = plan.forceFlush;
        m_result.settings.async = plan.async;
        m_connString = m_result.settings.ConnString(path);
    }

    ScriptResult Run() {
        Run([this] { Create(); });
        Run([this] { Open(); });
        while (!Ended() && m_number < m_plan.operations) {
            Run([this] { Step(); });
        }
        Run([this] { Close(); });
        m_client.Close();
        return std::move(m_result);
    }

  private:
    bool Ended() const override { return !m_result.problem.empty(); }

    template <typename Body>
    void Run(Body body) {
        if (Ended()) {
            return;
        }
        if (m_hooks.begins) {
            m_hooks.begins(m_number);
        }
        m_settles = !m_plan.async;
        body();
        if (!Ended()) {
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
            Transaction(5);
        } else if (ticket < 84) {
            Clear();
        } else if (ticket < 88 && m_plan.startsOver) {
            StartOver();
        } else if (ticket < 92) {
            SetMark();
        } else {
            Close();
            Open();
        }
    }

    void Do(Operation operation, const Call& call, const Call& expect) override {
        if (operation == Operation::kCommit) {
            m_written.Expect(m_model.NextRev() - 1, m_number);
        }
        const u32 got = call();
        Expect(NameOf(operation), got, expect());
        m_settles |= m_model.LastEffects().written != model::Written::kSoFar;
        TellFlushes();
    }

    void Create() {
        Expect("Create", K9eReplStorageCreate(m_connString.c_str(), 0), RC_OK);
        m_settles = true;
    }

    void Open() {
        Expect("Open", m_client.Open(m_connString), RC_OK);
        if (Ended()) {
            return;
        }
        K9eReplStorageSetOnWriteToFileCallback(m_client.Handle(), &WrittenWatch::OnWritten,
                                               &m_written);
        m_model.Open(m_result.settings);
        const u32 expected = m_model.Load();
        Expect("Load", K9eReplStorageLoad(m_client.Handle()), expected);
        if (!Ended() && !m_model.AdoptNextRev(m_client.NextRev())) {
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

    void Expect(const char* name, u32 got, u32 expected) {
        if (got != expected && !Ended()) {
            m_result.problem = std::string(name) + " answers " + std::to_string(got);
            m_result.failed = m_number;
            m_result.code = got;
        }
    }

    const ScriptPlan m_plan;
    const ScriptHooks& m_hooks;
    WrittenWatch m_written;
    std::string m_connString;
    ScriptResult m_result;
    model::Content m_closed;  // what the closed file holds
    u32 m_number = 0;
    bool m_settles = false;  // the present operation leaves nothing to be written
};

}  // namespace

ScriptResult RunScript(const std::string& path, const ScriptPlan& plan, u64 seed,
                       const ScriptHooks& hooks) {
    return Script(path, plan, seed, hooks).Run();
}

}  // namespace k9erepl::reliability
