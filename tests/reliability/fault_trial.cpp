// The operations of a trial, and what must hold when one of them fails; see the header.
#include "reliability/fault_trial.h"

#include <cstring>
#include <iterator>

#include "engine/storage_fixture.h"
#include "reliability/steady_calls.h"
#include "support/fixed_log.h"

namespace k9erepl::reliability {

namespace {

using model::Content;

constexpr u32 kFirstStamp = 0x1000;
constexpr u64 kTooLarge = 0x100000000;

bool IsTheSame(const K9eReplRec& record, const model::Records::value_type& expected) {
    const std::string& data = expected.second.data;
    return i64{record.rev} == expected.first && record.userWord == expected.second.userWord &&
           record.dataSize == data.size() &&
           std::memcmp(record.data, data.data(), data.size()) == 0;
}

class Trial final : public Driver {
  public:
    Trial(MemoryDisk& disk, const TrialPlan& plan, Fault& fault, u64 seed, TrialResult& result)
        : Driver(result.history, seed),
          m_disk(disk),
          m_plan(plan),
          m_fault(fault),
          m_choices(~seed),
          m_result(result) {
        model::Settings& settings = m_history.settings;
        settings.blockSize = plan.blockSize > 0 ? plan.blockSize : settings.blockSize;
        settings.initialMebibytes = plan.preallocates ? settings.initialMebibytes : 0;
        settings.deltaMebibytes = plan.preallocates ? settings.deltaMebibytes : 0;
        settings.forceFlush = plan.forceFlush;
        settings.commitBarrier = plan.commitBarrier;
        settings.async = plan.async;
        m_recordSize = plan.recordSize > 0 ? plan.recordSize
                       : m_random.OneIn(3) ? m_random.OneOf<u32>({1, 24, 100})
                                           : 0;
        m_history.recordSize = m_recordSize;
        m_history.moreSettings = plan.moreSettings;
        m_connStr = m_history.ConnString();
    }

    void Run() {
        Mount();
        m_fault.Resume();
        Create();
        Open();
        for (u32 done = 0; done < m_plan.operations && !Ended(); ++done) {
            Step();
        }
        Close();
        m_fault.Suspend();
        Judge();
        Delete();
        m_fault.Heal();
    }

  private:
    StorageState State() const {
        auto* storage = static_cast<IK9eReplStorage*>(m_client.Handle());
        return StorageAccess::State(*static_cast<CK9eReplStorage*>(storage));
    }
    bool Ended() const override { return m_over || !m_result.problem.empty(); }
    void Complain(const std::string& problem) {
        if (m_result.problem.empty()) {
            m_result.problem = problem;
        }
    }

    void Mount() {
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount({});
        m_disk.StartRecording();
        m_history.states.emplace_back();
        m_history.marks.emplace_back();
    }

    // --- Operations

    // A call that answers RC_OK when nothing goes wrong.
    void DoWell(Operation operation, const Call& call) {
        Do(operation, call, [] { return u32{RC_OK}; });
    }

    void Create() {
        u32 flags = 0;
        // What a failed attempt left may be replaced.
        DoWell(Operation::kCreate,
               [&] { return K9eReplStorageCreate(m_connStr.c_str(), flags++); });
        EndOperation();
    }

    void Open() {
        DoWell(Operation::kOpen, [&] { return m_client.Open(m_connStr); });
        if (Ended()) {
            return;
        }
        m_model.Open(m_history.settings);
        Do(
            Operation::kLoad, [&] { return K9eReplStorageLoad(m_client.Handle()); },
            [&] { return m_model.Load(); });
        if (!Ended() && !m_model.AdoptNextRev(m_client.NextRev())) {
            Complain("load makes the next revision " + std::to_string(m_client.NextRev()));
        }
        EndOperation();
        Enumerate();
    }

    void Close() {
        if (!m_client.HasHandle()) {
            return;
        }
        const bool flushes = State() == StorageState::kOpen;
        m_model.BeginClose();
        const Content whole = m_model.FileOnceFlushed();
        CallLibrary([&] { return m_client.Close(); });
        TellFlushes();
        m_model.EndClose();
        const Content file = m_model.File();
        const bool complete = file.records.size() == whole.records.size();
        m_over = m_over || !complete || WriterHurt() || (m_unsure && !m_flushes);
        if (m_over) {
            MayHold(file);
            MayHold(whole);
        } else {
            Holds(file);
        }
        if (flushes && !complete && !m_fault.Struck()) {
            Complain("closing has not flushed");
        }
        if (m_disk.OpenFiles() > 0) {
            Complain("closing leaves files open");
        }
        EndOperation();
    }

    void Step() {
        const u32 ticket = m_random.Below(100);
        if (ticket < 46 || (!m_plan.removes && ticket < 80)) {
            Transaction(3);
        } else if (ticket < 62) {
            Insert();
        } else if (ticket < 76) {
            Clear();
        } else if (ticket < 80) {
            StartOver();
        } else if (ticket < 86) {
            SetMark();
        } else if (ticket < 93) {
            Enumerate();
        } else {
            Close();
            if (!Ended()) {
                Open();
            }
        }
    }

    void BeforeRemoval(bool /*truncates*/) override {
        // The flush that some operations begin with leads to a state of its own.
        if (!Ended() && !m_model.InTransaction()) {
            MayHold(m_model.FileOnceFlushed());
        }
    }

    void End(Operation operation) override {
        if (operation == Operation::kInsert && m_refused && m_model.InTransaction()) {
            // The revision is used up.
            m_model.InsertPrepared(m_insertRev, {}, kTooLarge);
        } else if (operation == Operation::kMark) {
            // A number that was refused may be in the file's header all the same, to be read when
            // it is opened again.
            if (m_setLifenum) {
                m_refusedLifenum = m_refused ? m_setLifenum : std::nullopt;
            } else {
                m_refusedMark = m_refused ? std::optional(m_setMark) : std::nullopt;
            }
        }
        EndOperation();
    }

    void Enumerate() {
        const model::Records& expected = m_model.Served();
        auto next = expected.begin();
        bool differs = false;
        const model::RecordVisitor compare = [&](const K9eReplRec& record) {
            differs |= next == expected.end() || !IsTheSame(record, *next);
            next = next == expected.end() ? next : std::next(next);
            return u32{RC_OK};
        };
        DoWell(Operation::kEnumerate, [&] {
            next = expected.begin();
            differs = false;
            const u32 rc = m_client.Enumerate(model::kLowestRev, model::kHighestRev, compare);
            differs |= rc == RC_OK && next != expected.end();
            return rc;
        });
        if (differs) {
            Complain("enumeration delivers other records");
        }
    }

    void Delete() {
        if (!m_result.problem.empty() || m_fault.Struck()) {
            return;
        }
        m_fault.Resume();
        DoWell(Operation::kDelete, [&] { return K9eReplStorageDelete(m_connStr.c_str()); });
        if (m_disk.Image().NumberOf(StoragePath())) {
            Complain("deletion leaves the file");
        }
    }

    // --- Calls that may fail

    u32 CallLibrary(const Call& call) {
        m_log.Clear();
        m_fault.Enter();
        const u32 rc = call();
        m_fault.Leave();
        SteadyCalls::Settle();
        return rc;
    }

    void Do(Operation operation, const Call& call, const Call& expect) override {
        m_refused = false;
        if (Ended()) {
            return;
        }
        const model::Model before = m_model;
        const u32 got = CallLibrary(call);
        const std::vector<i64> flushed = m_client.TakeFlushed();
        const u32 expected = expect();
        Tell(flushed);
        if (got == expected) {
            return;
        }
        ++m_result.failures;
        m_refused = true;
        m_unsure = true;
        RememberWhatMayBe(operation);
        m_model = before;
        Tell(flushed);
        RememberWhatMayBe(operation);
        Examine(operation, got);
        if (m_result.problem.empty()) {
            GoOn(operation, call, expect);
        }
    }

    // The bytes of an operation that failed may be in the file until the next one is written.
    void RememberWhatMayBe(Operation operation) {
        if (m_client.HasHandle() && !m_model.InTransaction() && operation != Operation::kLoad) {
            MayHold(m_model.FileOnceFlushed());
        }
    }

    void Examine(Operation operation, u32 got) {
        const std::string what = std::string(NameOf(operation)) + " answers " + std::to_string(got);
        if (got == RC_OK || !m_fault.Struck() || !m_fault.Explains(operation, got)) {
            Complain(what);
        } else if (!m_log.HasError("", got)) {
            Complain(what + " and logs no error with this code");
        } else if (!StateIsDocumented(operation)) {
            Complain(what + " and leaves the state " + std::to_string(static_cast<u32>(State())));
        }
    }

    bool StateIsDocumented(Operation operation) const {
        if (operation == Operation::kCreate || operation == Operation::kDelete) {
            return true;
        }
        if (operation == Operation::kOpen) {
            return !m_client.HasHandle();
        }
        const StorageState state = State();
        const bool broken = state == StorageState::kBroken;
        const bool flushFailed = state == StorageState::kFlushFailed;
        switch (operation) {
            case Operation::kLoad:
                return state == StorageState::kClosed;
            case Operation::kBegin:
            case Operation::kStartOver:
            case Operation::kEnumerate:
                return broken;
            case Operation::kInsert:
                return state == StorageState::kOpen || (m_plan.async && broken);
            case Operation::kCommit:
                return flushFailed || (m_plan.async && broken);
            case Operation::kClear:
                return flushFailed || broken;
            default:
                return state == StorageState::kOpen;
        }
    }

    void GoOn(Operation operation, const Call& call, const Call& expect) {
        const bool again = operation == Operation::kLoad || operation == Operation::kCreate ||
                           operation == Operation::kOpen;
        const bool deletes = operation == Operation::kDelete;
        if (operation == Operation::kCommit && m_choices.OneIn(2) && CommitAgain()) {
            return;
        }
        m_fault.Heal();
        if (!m_result.problem.empty()) {
            return;
        }
        if (deletes) {
            // The index file goes first, and may be all that went.
            const bool exists = m_disk.Image().NumberOf(StoragePath()).has_value();
            ExpectAfter("Delete again", call(), exists ? u32{RC_OK} : u32{RC_SYSTEM_ERROR});
        } else if (again) {
            const u32 expected = expect();
            ExpectAfter(NameOf(operation), CallLibrary(call), expected);
            m_result.wentOn = true;
        } else if (State() == StorageState::kBroken) {
            m_mayBeDamaged = operation == Operation::kStartOver || m_clearsAll;
            ExpectNothingWorks();
            GiveUp();
        } else if (State() == StorageState::kFlushFailed) {
            LeaveFlushFailed();
        } else {
            m_result.wentOn = true;
        }
    }

    // With the fault still there; whether that went through.
    bool CommitAgain() {
        if (State() != StorageState::kFlushFailed) {
            return false;
        }
        const u32 got = CallLibrary([&] { return K9eReplStorageCommit(m_client.Handle()); });
        if (got == RC_OK) {
            m_model.Commit();
        }
        TellFlushes();
        if (got != RC_OK) {
            Examine(Operation::kCommit, got);
            return false;
        }
        m_fault.Heal();
        m_result.wentOn = true;
        return true;
    }

    void ExpectAfter(const char* what, u32 got, u32 expected) {
        if (got != expected) {
            Complain(std::string(what) + " after the failure answers " + std::to_string(got) +
                     ", expected " + std::to_string(expected));
        }
    }

    void GiveUp() {
        m_over = true;
        m_result.reopened = true;
    }

    void ExpectNothingWorks() {
        void* const handle = m_client.Handle();
        m_client.Prepare({});
        ExpectAfter("Insert", m_client.InsertPrepared(nullptr), RC_WRONG_STATE);
        ExpectAfter("Load", K9eReplStorageLoad(handle), RC_WRONG_STATE);
        ExpectAfter("Commit", K9eReplStorageCommit(handle), RC_WRONG_STATE);
    }

    // Commit tries again, Rollback gives up; an asynchronous writer that has failed stays so.
    void LeaveFlushFailed() {
        void* const handle = m_client.Handle();
        m_client.Prepare({});
        ExpectAfter("Insert", m_client.InsertPrepared(nullptr), RC_WRONG_STATE);
        const bool rollsBack = m_choices.OneIn(2);
        const u32 got = CallLibrary([&] {
            return rollsBack ? K9eReplStorageRollback(handle) : K9eReplStorageCommit(handle);
        });
        if (WriterHurt() && State() != StorageState::kOpen) {
            GiveUp();
            return;
        }
        ExpectAfter(rollsBack ? "Rollback" : "Commit", got,
                    rollsBack ? m_model.Rollback() : m_model.Commit());
        TellFlushes();
        if (State() != StorageState::kOpen) {
            Complain("the storage is not open again");
        }
        m_result.wentOn = true;
        EndOperation();
    }

    bool WriterHurt() const { return m_plan.async && m_fault.MayHurtWriter(); }

    // --- What the file holds

    void Tell(const std::vector<i64>& flushed) {
        for (const i64 rev : flushed) {
            m_model.Flushed(rev);
            m_flushes = true;
        }
    }
    void TellFlushes() { Tell(m_client.TakeFlushed()); }

    void MayHold(const Content& content) { m_history.states.push_back(content); }
    void Holds(const Content& content) {
        MayHold(content);
        m_held = m_history.states.size() - 1;
    }

    // What was acknowledged is in the file; nothing that was given up is, once something was
    // written behind it.
    void EndOperation() {
        if (m_client.HasHandle() && !Ended() && State() == StorageState::kOpen) {
            const bool sure = !WriterHurt() && (m_flushes || !m_unsure);
            sure ? Holds(m_model.File()) : MayHold(m_model.File());
            m_unsure = m_unsure && !sure;
        }
        m_flushes = false;
        m_history.marks.push_back(
            {m_disk.ChangeCount(), m_history.states.size() - 1, m_held, m_held});
    }

    // --- The end

    void Judge() {
        m_result.left = m_disk.Image();
        m_history.changes = m_disk.TakeChanges();
        if (!m_result.problem.empty()) {
            return;
        }
        const StateRange range{m_held, m_history.states.size() - 1};
        const Problem problem = reliability::Examine(
            m_disk, m_result.left, m_history, m_choices.Next(), [&](Seen seen) {
                if (m_refusedLifenum == seen.lifenum) {
                    seen.lifenum = m_model.Lifenum();
                }
                if (m_refusedMark == seen.mark) {
                    seen.mark = m_model.Mark();
                }
                return JudgeByStates(m_history, range, seen);
            });
        m_result.damaged = m_mayBeDamaged && (problem.starts_with("opening answers") ||
                                              problem.starts_with("loading answers"));
        if (!problem.empty() && !m_result.damaged) {
            Complain("at the end: " + problem);
        }
    }

    MemoryDisk& m_disk;
    const TrialPlan m_plan;
    Fault& m_fault;
    model::Random m_choices;  // what it does about failures; m_random: what it does
    test::FixedLog m_log;
    std::string m_connStr;
    TrialResult& m_result;
    std::size_t m_held = 0;  // the state that the file holds for sure, or a later one
    bool m_over = false;
    bool m_flushes = false;       // since the last operation's end
    bool m_unsure = false;        // what was given up may still be in the file
    bool m_refused = false;       // the last call
    bool m_mayBeDamaged = false;  // as a failed clear of everything may leave the file
    std::optional<u32> m_refusedLifenum;
    std::optional<i64> m_refusedMark;
};

}  // namespace

TrialResult RunTrial(MemoryDisk& disk, const TrialPlan& plan, Fault& fault, u64 seed) {
    TrialResult result;
    Trial(disk, plan, fault, seed, result).Run();
    return result;
}

}  // namespace k9erepl::reliability
