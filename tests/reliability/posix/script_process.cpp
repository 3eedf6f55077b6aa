// The operations of a script, what survives when, and the process; see the header.
#include "reliability/posix/script_process.h"

#include <k9erepl/storage.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <thread>
#include <utility>

#include "reliability/driver.h"
#include "reliability/gated_files.h"
#include "support/file_bytes.h"
#include "support/posix/forked.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kOperations = 30;

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
    Script(const std::string& path, const ScriptPlan& plan, u64 seed, const ScriptHooks& hooks,
           ScriptResult& result)
        : Driver(result.history, seed),
          m_plan(plan),
          m_hooks(hooks),
          m_written(hooks),
          m_result(result) {
        model::Settings& settings = m_history.settings;
        settings.flushBy = model::FlushBy::kTransactions;
        settings.flushThreshold = 1;
        settings.forceFlush = plan.forceFlush;
        settings.async = plan.async;
        m_connString = settings.ConnString(path);
    }

    void Run() {
        Run([this] {
            CreateAt(m_connString);
            m_settles = true;
        });
        Run([this] { Open(); });
        while (!Ended() && m_number < kOperations) {
            Run([this] { Step(); });
        }
        Run([this] { Close(); });
        m_client.Close();
    }

  private:
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
        if (Ended()) {
            m_result.failed = m_number;
            m_result.code = m_unexpected;
            return;
        }
        m_history.states.push_back(m_model.File());
        if (m_settles) {
            m_written.Settle(m_number);
        }
        ++m_number;
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

    void Open() {
        OpenAt(m_connString);
        if (!Ended()) {
            K9eReplStorageSetOnWriteToFileCallback(m_client.Handle(), &WrittenWatch::OnWritten,
                                                   &m_written);
        }
        m_settles = true;
    }

    void Close() {
        m_model.BeginClose();
        K9eReplStorageSetOnWriteToFileCallback(m_client.Handle(), nullptr, nullptr);
        m_client.Close();
        TellFlushes();
        m_model.EndClose();
        m_settles = true;
    }

    const ScriptPlan m_plan;
    const ScriptHooks& m_hooks;
    WrittenWatch m_written;
    std::string m_connString;
    ScriptResult& m_result;
    u32 m_number = 0;
    bool m_settles = false;  // the present operation leaves nothing to be written
};

// What the process tells its parent, also when it is killed.
struct Told {
    std::atomic<u64> calls;
    std::atomic<u64> struck;
    std::atomic<u32> begun;
    std::atomic<u32> acknowledged;
    std::atomic<u32> failed;
    std::atomic<u32> code;
    std::atomic<bool> ended;
};

// In the process.
int RunStruck(const std::string& folder, const ScriptPlan& plan, u64 seed, const Strike& strike,
              Told& told) {
    platform::TheSystemCalls() = platform::NativeSystemCalls();
    const GatedFiles files([&](const Attempt& attempt) {
        const u64 number = ++told.calls;
        const std::optional<Permit> permit = strike ? strike(number, attempt) : std::nullopt;
        told.struck += permit ? 1 : 0;
        return permit.value_or(Permit{});
    });
    const ScriptHooks hooks{[&](u32 operation) { told.begun = operation; },
                            [&](u32 operation) { told.acknowledged = operation; }};
    const ScriptResult result = RunScript(folder + "/storage.edb", plan, seed, hooks);
    told.failed = result.failed;
    told.code = result.code;
    told.ended = true;
    return 0;
}

DiskImage ImageOf(const std::string& folder) {
    DiskImage image;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        const auto bytes = test::ReadBytes(entry.path().string());
        FileBytes file;
        file.Write(0, bytes.data(), static_cast<u32>(bytes.size()));
        image.Put(kFolder + entry.path().filename().string(), std::move(file));
    }
    return image;
}

}  // namespace

ScriptResult RunScript(const std::string& path, const ScriptPlan& plan, u64 seed,
                       const ScriptHooks& hooks) {
    ScriptResult result;
    Script(path, plan, seed, hooks, result).Run();
    return result;
}

ProcessEnd RunProcess(const ScriptPlan& plan, u64 seed, const Strike& strike, u64 killAfter) {
    const test::TempFolder folder;
    const test::Shared<Told> told;
    const pid_t process =
        test::StartForked([&] { return RunStruck(folder.Path(), plan, seed, strike, *told); });
    // Busy: any waiting would choose the moments.
    while (killAfter > 0 && told->calls < killAfter && !told->ended) {
        std::this_thread::yield();
    }
    if (killAfter > 0) {
        kill(process, SIGKILL);
    }
    return {.answer = test::AnswerOf(process),
            .calls = told->calls,
            .struck = told->struck,
            .begun = told->begun,
            .acknowledged = told->acknowledged,
            .failed = told->failed,
            .code = told->code,
            .left = ImageOf(folder.Path())};
}

}  // namespace k9erepl::reliability
