// The operations and the comparisons after them; see the header.
#include "model/runner.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <filesystem>

namespace k9erepl::model {

namespace fs = std::filesystem;

namespace {

// The others go on while the writing thread is held.
bool MayWaitForWriter(OpKind kind) {
    switch (kind) {
        case OpKind::kClear:
        case OpKind::kClearAll:
        case OpKind::kTruncate:
        case OpKind::kSetLifenum:
        case OpKind::kLoad:
        case OpKind::kReopen:
            return true;
        default:
            return false;
    }
}

}  // namespace

Runner::Runner(const std::string& folder)
    : m_path(folder + "/model.edb"),
      m_indexPath(m_path + "-idx"),
      m_savedIndexPath(folder + "/saved-idx"),
      m_workPath(folder + "/look.edb") {}

std::optional<Failure> Runner::Run(const Script& script, std::atomic<std::size_t>* progress) {
    m_verdict.ExpectEqual(K9eReplStorageCreate(("file=" + m_path).c_str(), 0), RC_OK, "Create");
    for (std::size_t at = 0; at < script.size() && !m_verdict.Failed(); ++at) {
        if (progress != nullptr) {
            *progress = at;
        }
        m_verdict.At(at);
        Step(script[at]);
    }
    if (!m_verdict.Failed()) {
        Close();
        LookAtFile(0);
    }
    return m_verdict.First();
}

void Runner::Step(const Operation& operation) {
    Do(operation.kind, operation);
    if (!m_verdict.Failed()) {
        ExpectMarks();
        ExpectDataSource();
    }
}

void Runner::Do(OpKind kind, const Operation& operation) {
    if (MayWaitForWriter(kind)) {
        LetWriterGo(operation.word);
    }
    void* const handle = m_client.Handle();
    const auto rev = [&](const RevChoice& choice) { return Resolve(choice, m_model); };
    switch (kind) {
        case OpKind::kBegin:
            ExpectCode(kind, K9eReplStorageBeginTransaction(handle), m_model.Begin());
            break;
        case OpKind::kCommit:
            ExpectCode(kind, K9eReplStorageCommit(handle), m_model.Commit());
            break;
        case OpKind::kRollback:
            ExpectCode(kind, K9eReplStorageRollback(handle), m_model.Rollback());
            break;
        case OpKind::kInsert:
            Insert(operation.size, operation.word, nullptr);
            break;
        case OpKind::kInsertPrepared: {
            const i64 prepared = rev(operation.rev);
            Insert(operation.size, operation.word, &prepared);
            break;
        }
        case OpKind::kInsertMany:
            InsertMany(operation);
            break;
        case OpKind::kEnumerate:
            Enumerate(operation, rev(operation.from), rev(operation.to), false);
            break;
        case OpKind::kEnumerateFrom:
            Enumerate(operation, rev(operation.from), kHighestRev, true);
            break;
        case OpKind::kEnumerateWithoutVisitor:
            EnumerateWithoutVisitor(rev(operation.from), rev(operation.to));
            break;
        case OpKind::kClear:
            Clear(rev(operation.rev), operation.mode, false, operation.word);
            break;
        case OpKind::kClearAll:
            Clear(m_model.NextRev(), operation.mode, true, operation.word);
            break;
        case OpKind::kTruncate:
            Truncate();
            break;
        case OpKind::kSetLifenum:
            m_model.SetLifenum(operation.word);
            ExpectCode(kind, K9eReplStorageSetLifenum(handle, operation.word), RC_OK);
            break;
        case OpKind::kLoad:
            Load();
            break;
        case OpKind::kFlushOnIdle:
            m_verdict.ExpectEqual(m_client.DataSource().FlushOnIdle(), RC_OK, "FlushOnIdle");
            break;
        case OpKind::kLookAtFile:
            LookAtFile(operation.word);
            break;
        case OpKind::kHoldWriter:
            if (m_model.CurrentSettings().WritesAsync()) {
                m_client.Writer().Hold();
            }
            break;
        case OpKind::kReopen:
            Reopen(operation.reopen);
            break;
    }
}

// --- Transactions and records

void Runner::Insert(const SizeChoice& size, u32 seed, const i64* prepared) {
    const PlannedRecord planned = MakeRecord(size, m_model.CurrentSettings().blockSize, seed);
    i64 got = 0;
    const u32 rc = m_client.Insert(planned, prepared, &got);
    i64 rev = prepared != nullptr ? *prepared : 0;
    const u32 expected = prepared != nullptr
                             ? m_model.InsertPrepared(rev, planned.record, planned.Need())
                             : m_model.Insert(planned.record, planned.Need(), &rev);
    ExpectCode(prepared != nullptr ? OpKind::kInsertPrepared : OpKind::kInsert, rc, expected);
    if (expected == RC_OK) {
        m_verdict.ExpectEqual(got, rev, "Insert: the record's revision");
    }
}

void Runner::InsertMany(const Operation& operation) {
    for (u32 i = 0; i < operation.count && !m_verdict.Failed(); ++i) {
        Insert(operation.size, operation.word + i, nullptr);
    }
}

// --- Reading

// One enumeration, from the visitor's side.
struct Runner::Walk {
    const Operation* operation;
    i64 next;  // a record below it must not come any more
    i64 to;
    u32 seen = 0;
    bool stopped = false;
    u32 stopCode = 0;

    void Stop(u32 code) {
        stopped = true;
        stopCode = code;
    }
};

u32 Runner::OnRecord(Walk& walk, const K9eReplRec& record) {
    constexpr u32 kGiveUp = 0x5109;
    const auto expected = m_model.FirstIn(walk.next, walk.to);
    if (!ExpectRecord(record, expected, m_model.Served().end(), "Enumerate: record", m_verdict)) {
        walk.Stop(kGiveUp);
        return kGiveUp;
    }
    walk.next = AddHeld(record.rev, 1);
    if (++walk.seen != walk.operation->count) {
        return RC_OK;
    }
    if (!walk.operation->acts) {
        walk.Stop(walk.operation->stopCode);
        return walk.stopCode;
    }
    Operation inner = *walk.operation;
    inner.acts = false;
    inner.count = 0;
    Do(inner.kind = inner.action, inner);
    if (m_verdict.Failed()) {
        walk.Stop(kGiveUp);
        return kGiveUp;
    }
    return RC_OK;
}

void Runner::Enumerate(const Operation& operation, i64 from, i64 to, bool fromDataSource) {
    Walk walk{.operation = &operation, .next = from, .to = to};
    const RecordVisitor visitor = [&](const K9eReplRec& record) { return OnRecord(walk, record); };
    const bool wasOpen = m_model.IsOpen();
    const u32 rc = fromDataSource ? m_client.EnumerateFrom(from, visitor)
                                  : m_client.Enumerate(from, to, visitor);
    const u32 goodEnd = wasOpen ? RC_OK : RC_WRONG_STATE;
    ExpectCode(OpKind::kEnumerate, rc, walk.stopped ? walk.stopCode : goodEnd);
    if (rc != RC_OK || m_verdict.Failed()) {
        return;
    }
    const auto missing = m_model.FirstIn(walk.next, to);
    m_verdict.Expect(
        missing == m_model.Served().end(), "Enumerate: a record is missing",
        missing == m_model.Served().end() ? "" : "rev " + std::to_string(missing->first));
}

void Runner::EnumerateAll() {
    if (!m_verdict.Failed()) {
        Enumerate(Operation{}, kLowestRev, kHighestRev, false);
    }
}

void Runner::EnumerateWithoutVisitor(i64 from, i64 to) {
    const u32 rc = K9eReplStorageEnumRecords(m_client.Handle(), from, to, nullptr, nullptr);
    const bool delivers = m_model.FirstIn(from, to) != m_model.Served().end();
    const u32 whenOpen = delivers ? RC_INVALID_ARG : RC_OK;
    ExpectCode(OpKind::kEnumerateWithoutVisitor, rc, m_model.IsOpen() ? whenOpen : RC_WRONG_STATE);
}

// --- Removing

void Runner::Clear(i64 rev, u32 mode, bool all, u32 word) {
    const std::string backup = m_path + ".backup";
    if (word % 2 == 0) {
        std::error_code ignored;
        fs::remove(backup, ignored);
    }
    const bool stoodBefore = fs::exists(backup);
    const Content before = m_model.FileOnceFlushed();
    ++m_generation;
    if (all) {
        ExpectCode(OpKind::kClearAll, K9eReplStorageClearAll(m_client.Handle(), mode),
                   m_model.ClearAll(mode));
    } else {
        ExpectCode(OpKind::kClear, K9eReplStorageClearOldRev(m_client.Handle(), rev, mode),
                   m_model.Clear(rev, mode));
    }
    ExpectBackup(before, stoodBefore, word);
    EnumerateAll();
}

void Runner::ExpectBackup(const Content& before, bool stoodBefore, u32 word) {
    if (m_verdict.Failed()) {
        return;
    }
    const std::string backup = m_path + ".backup";
    const Expected expected = m_model.LastEffects().backup;
    const bool stands = fs::exists(backup);
    m_verdict.Expect(expected != Expected::kYes || stands, "Clear: no backup");
    m_verdict.Expect(expected != Expected::kNo || stands == stoodBefore,
                     "Clear: a backup too many");
    m_verdict.Expect(!fs::exists(m_path + ".temporary"), "Clear: leaves a temporary file");
    if (expected == Expected::kYes && word % 8 < 3) {
        ExpectContent({.path = backup,
                       .indexPath = "",
                       .workPath = m_workPath,
                       .cacheBlocks = word % 3,
                       .what = "Backup: "},
                      before, m_verdict);
    }
}

void Runner::Truncate() {
    ++m_generation;
    ExpectCode(OpKind::kTruncate, K9eReplStorageTruncate(m_client.Handle()), m_model.Truncate());
    EnumerateAll();
}

// --- Comparing

void Runner::ExpectCode(OpKind kind, u32 got, u32 expected) {
    if (got != expected) {
        m_verdict.ExpectEqual(got, expected, (std::string(NameOf(kind)) + ": result").c_str());
        return;
    }
    ExpectFlush();
}

// OnFlush comes when it must, once, and with a revision that the transactions explain.
void Runner::ExpectFlush() {
    const std::vector<i64> flushed = m_client.TakeFlushed();
    const Effects effects = m_model.LastEffects();
    m_model.ForgetFlush();
    if (!flushed.empty()) {
        ExpectFlushed(flushed, effects);
    } else {
        m_verdict.Expect(effects.flush != Expected::kYes, "Flush: none");
    }
    ExpectWritten(effects.written);
}

void Runner::ExpectFlushed(const std::vector<i64>& flushed, const Effects& effects) {
    const std::string told = "rev " + std::to_string(flushed.front());
    m_verdict.Expect(flushed.size() == 1, "Flush: more than one", told);
    if (m_verdict.Expect(effects.flush != Expected::kNo, "Flush: one too many", told)) {
        m_verdict.ExpectIn(flushed.front(), effects.flushedRev, "Flush: revision");
        m_model.Flushed(flushed.front());
    }
}

// OnWriteToFile follows the flushes: at once, or when the writing thread comes to them.
void Runner::ExpectWritten(Written written) {
    if (written != Written::kSoFar) {
        m_model.AllWritten();
    }
    if (written == Written::kStartOver) {
        m_client.Writer().Forget();
    }
    const std::optional<i64> told = m_client.Writer().Get().rev;
    if (!told || !m_model.WritesFile()) {
        return;
    }
    const bool behind = m_model.CurrentSettings().async && written == Written::kSoFar;
    const i64 flushed = m_model.FlushedRev();
    m_verdict.ExpectIn(*told, {behind ? kLowestRev : flushed, flushed}, "OnWriteToFile: revision");
}

void Runner::ExpectMarks() {
    u32 lifenum = 0;
    i64 mark = 0;
    K9eReplStorageGetLifenum(m_client.Handle(), &lifenum);
    K9eReplStorageGetClearOldRev(m_client.Handle(), &mark);
    m_verdict.ExpectEqual(m_client.NextRev(), m_model.NextRev(), "Next revision");
    m_verdict.ExpectEqual(lifenum, m_model.Lifenum(), "Life number");
    m_verdict.ExpectEqual(mark, m_model.Mark(), "Revision mark");
}

void Runner::ExpectDataSource() {
    i64 firstRev = 0;
    i64 lastRev = 0;
    i64 clearRev = 0;
    IK9eReplDS& source = m_client.DataSource();
    const u32 expected = m_model.IsOpen() ? RC_OK : RC_NOT_OPEN;
    m_verdict.ExpectEqual(source.GetFirstRev(0, &firstRev), expected, "GetFirstRev: result");
    m_verdict.ExpectEqual(source.GetLastRev(0, &lastRev), expected, "GetLastRev: result");
    m_verdict.ExpectEqual(source.GetClearRev(&clearRev), RC_OK, "GetClearRev: result");
    m_verdict.ExpectEqual(clearRev, m_model.Mark(), "GetClearRev");
    if (m_model.IsOpen()) {
        m_verdict.ExpectIn(firstRev, m_model.FirstRev(), "GetFirstRev");
        m_verdict.ExpectEqual(lastRev, m_model.NextRev(), "GetLastRev");
    }
}

}  // namespace k9erepl::model
