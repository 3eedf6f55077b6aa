// The operations; see the header.
#include "reliability/driver.h"

#include <k9erepl/storage.h>

namespace k9erepl::reliability {

using model::RevPlace;
using model::SizeClass;

const char* NameOf(Operation operation) {
    constexpr const char* kNames[] = {"Create",    "Open",     "Load",  "Begin",     "Insert",
                                      "Commit",    "Rollback", "Clear", "StartOver", "SetMark",
                                      "Enumerate", "Close",    "Delete"};
    return kNames[static_cast<std::size_t>(operation)];
}

Driver::Driver(History& history, u64 seed) : m_history(history), m_random(seed) {
    model::Settings& settings = m_history.settings;
    settings.blockSize = m_random.OneOf<u32>({200, 400, 1024, 4096});
    settings.cacheBlocks = m_random.OneOf<u32>({0, 1, 2, 7});
    settings.flushThreshold = m_random.OneOf({1, 1, 1, 3});
    if (m_random.OneIn(5)) {
        settings.flushBy = model::FlushBy::kData;
        settings.flushThreshold = m_random.OneOf({1, 500});
    }
    settings.indexHint = m_random.OneOf<u32>({1, 2, 50});
    settings.initialMebibytes = m_random.OneIn(6) ? 1 : 0;
    settings.deltaMebibytes = m_random.OneIn(4) ? 1 : 0;
    settings.asyncKilobytes = m_random.OneOf<std::optional<u32>>({std::nullopt, 0, 1, 64});
}

void Driver::Expect(const char* name, u32 got, u32 expected) {
    if (got != expected && m_history.problem.empty()) {
        m_unexpected = got;
        m_history.problem = std::string(name) + ": " + std::to_string(got) + ", expected " +
                            std::to_string(expected);
    }
}

void Driver::CreateAt(const std::string& connString) {
    Expect("Create", K9eReplStorageCreate(connString.c_str(), 0), RC_OK);
}

void Driver::OpenAt(const std::string& connString) {
    Expect("Open", m_client.Open(connString), RC_OK);
    m_model.Open(m_history.settings);
    if (!Ended()) {
        const u32 loaded = K9eReplStorageLoad(m_client.Handle());
        Expect("Load", loaded, m_model.Load());
        const bool adopts = Ended() || m_model.AdoptNextRev(m_client.NextRev());
        m_history.problem += adopts ? "" : "Load: next revision";
    }
}

void Driver::Transaction(u32 recordsMax, u32 rollbackIn) {
    const auto begin = [&] {
        Do(
            Operation::kBegin, [&] { return K9eReplStorageBeginTransaction(m_client.Handle()); },
            [&] { return m_model.Begin(); });
    };
    begin();
    const bool nested = m_random.OneIn(6);
    if (nested) {
        begin();
    }
    for (u32 left = m_random.Below(recordsMax + 1); left > 0; --left) {
        Insert();
    }
    const bool rollsBack = rollbackIn > 0 && m_random.OneIn(rollbackIn);
    for (u32 left = nested ? 2 : 1; left > 0 && !Ended() && m_model.InTransaction(); --left) {
        if (rollsBack) {
            Do(
                Operation::kRollback, [&] { return K9eReplStorageRollback(m_client.Handle()); },
                [&] { return m_model.Rollback(); });
        } else {
            Do(
                Operation::kCommit, [&] { return K9eReplStorageCommit(m_client.Handle()); },
                [&] { return m_model.Commit(); });
        }
        End(rollsBack ? Operation::kRollback : Operation::kCommit);
    }
}

model::SizeChoice Driver::AnySize() {
    if (m_recordSize > 0) {
        return {SizeClass::kBytes, m_recordSize};
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

void Driver::Insert() {
    const auto planned = model::MakeRecord(AnySize(), m_model.CurrentSettings().blockSize,
                                           static_cast<u32>(m_random.Next()));
    const bool prepared = m_random.OneIn(4);
    const i64 gap = m_random.OneOf<i64>({0, 1, 10, 1000});
    if (Ended()) {
        return;
    }
    m_insertRev = m_model.NextRev() + (prepared ? gap : 0);
    m_client.Prepare(planned);
    Do(
        Operation::kInsert,
        [&] { return m_client.InsertPrepared(prepared ? &m_insertRev : nullptr); },
        [&] { return m_model.InsertPrepared(m_insertRev, planned.record, planned.Need()); });
    End(Operation::kInsert);
}

void Driver::Clear() {
    const model::RevChoice choice{
        m_random.OneOf({RevPlace::kKept, RevPlace::kKept, RevPlace::kOldest, RevPlace::kNext}),
        m_random.Below(1000), m_random.OneOf<i64>({0, 0, 1, -1})};
    ClearBelow(model::Resolve(choice, m_model), m_random.OneOf<u32>({0, 0, 1, 1, 2, 2}));
}

void Driver::ClearBelow(i64 rev, u32 mode) {
    m_clearMode = mode;
    m_clearsAll = m_model.Served().lower_bound(rev) == m_model.Served().end();
    BeforeRemoval(false);
    Do(
        Operation::kClear, [&] { return K9eReplStorageClearOldRev(m_client.Handle(), rev, mode); },
        [&] { return m_model.Clear(rev, mode); });
    End(Operation::kClear);
}

void Driver::StartOver() {
    if (m_random.OneIn(2)) {
        return Truncate();
    }
    BeforeRemoval(false);
    Do(
        Operation::kStartOver, [&] { return K9eReplStorageClearAll(m_client.Handle(), 0); },
        [&] { return m_model.ClearAll(0); });
    End(Operation::kStartOver);
}

void Driver::Truncate() {
    BeforeRemoval(true);
    Do(
        Operation::kStartOver, [&] { return K9eReplStorageTruncate(m_client.Handle()); },
        [&] { return m_model.Truncate(); });
    End(Operation::kStartOver);
}

void Driver::SetMark() {
    const u32 number = m_random.Below(1000);
    m_setLifenum = m_random.OneIn(2) ? std::optional(number) : std::nullopt;
    m_setMark = number;
    if (m_setLifenum) {
        Do(
            Operation::kMark, [&] { return K9eReplStorageSetLifenum(m_client.Handle(), number); },
            [&] {
                m_model.SetLifenum(number);
                return u32{RC_OK};
            });
    } else {
        Do(
            Operation::kMark,
            [&] {
                return K9eReplStorageClearOldRev(m_client.Handle(), number, K9EREPL_CLEAR_MARK);
            },
            [&] { return m_model.Clear(number, K9EREPL_CLEAR_MARK); });
    }
    End(Operation::kMark);
}

bool Driver::TellFlushes() {
    const std::vector<i64> flushed = m_client.TakeFlushed();
    for (const i64 rev : flushed) {
        m_model.Flushed(rev);
    }
    return !flushed.empty();
}

}  // namespace k9erepl::reliability
