// Clears and truncations that fail at any of their system calls or allocations: the code, the
// state, the message, and that after reopening everything is there as it was before or after.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

struct Removal {
    const char* name;
    u32 mode;  // kTruncation for a truncation
    i64 rev;
    const char* message;  // of a failure in the storage file

    u32 Do(TestStorage& storage) const {
        return mode == kTruncation ? storage.Truncate() : storage.Clear(rev, mode);
    }
    static constexpr u32 kTruncation = 1000;
};

std::string NameOfRemoval(const ::testing::TestParamInfo<Removal>& info) {
    return info.param.name;
}

constexpr const char* kRestartFailed =
    "Failed to truncate solid storage while clear old revs;clear rev 10";
constexpr Removal kRemovals[] = {
    {"LogicalClear", kLogical, 5, "Failed to set clear rev to solid storage;rev 5"},
    {"Squeeze", kSqueeze, 5, "Failed to squeeze solid storage;rev 5"},
    {"SqueezeWithBackup", kSqueezeBackup, 5, "Failed to squeeze solid storage;rev 5"},
    {"ClearOfEverything", kLogical, 10, kRestartFailed},
    {"ClearOfEverythingBySqueeze", kSqueeze, 10, kRestartFailed},
    {"Truncation", Removal::kTruncation, 0, "Failed to truncate solid storage"}};

// Everything is forced to the disk and the file grows in steps: every kind of call is made.
const std::string kSettings =
    "flush_mode=PerTrans;flush_trans_num=5;flush_timeout=2147483647;read_buffers_count=1;"
    "block_size=138;cache_type=Last2;force_flush=yes;file_size_delta=1;file_initial_size=1;";

// Records 1 to 9, of which the last ones are only in memory.
struct PartlyFlushed : TestStorage {
    PartlyFlushed() : TestStorage(kSettings) {
        for (i64 rev = 1; rev <= 9; ++rev) {
            EXPECT_EQ(Insert(ClearableStorage::TextOf(rev)), RC_OK);
        }
        EXPECT_EQ(WaitForWriter(), RC_OK);
    }
};

// A flush that failed before a clear. The synchronous writer has a way out, without which the
// records would be lost at closing; a writing thread that failed has none but reopening.
void ExpectWayOut(TestStorage& storage) {
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
    if (storage.WaitForWriter() == RC_OK) {
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 9));
    } else {
        EXPECT_TRUE(RunsAsynchronously());
    }
}

// Where the backup is made by a move, and nothing can be moved back, a message names the backup.
void MoveBackupBackIfToldTo(const TestStorage& storage, const LogCapture& log) {
    if (!Exists(storage.Path())) {
        const std::string where = "; storage data is in file: '" + BackupPath(storage) + "'";
        EXPECT_EQ(log.CountContaining(where), 1U) << log;
        EXPECT_TRUE(platform::MoveFileReplacing(BackupPath(storage), storage.Path()));
    }
}

// What reopening shows must be what was there before or what is there after, and must go on.
void ExpectOldOrNew(TestStorage& storage, const Removal& removal, bool succeeded) {
    storage.Close();
    // A crash could have left it; here it is only in the way of nothing.
    EXPECT_FALSE(Exists(TemporaryPath(storage)));
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    const Revs now = RevsOf(storage.Records());
    const bool allGoes = removal.mode == Removal::kTruncation || removal.rev == 10;
    const Revs then = allGoes ? Revs() : RevRange(removal.rev, 9);
    // A storage that broke does not flush its tail when it is closed.
    EXPECT_TRUE(now == then || (!succeeded && (now == RevRange(1, 9) || now == RevRange(1, 5))))
        << ::testing::PrintToString(now);
    for (const SeenRecord& record : storage.Records()) {
        EXPECT_EQ(record.data, ClearableStorage::TextOf(record.rev));
    }
    const i64 next = storage.NextRev();
    ASSERT_EQ(storage.Insert("goes on"), RC_OK);
    ASSERT_EQ(storage.Clear(next, kSqueeze), RC_OK);
    storage.Reopen();
    EXPECT_EQ(storage.Records(), SeenRecords({{next, 0, "goes on"}}));
}

struct Case {
    Removal removal;
    SystemCall call;
    const char* callName;
    Repeat repeat;
};

void PrintTo(const Case& parameter, std::ostream* out) {
    *out << parameter.removal.name << ", " << parameter.callName;
}

// Whether the removal makes such a call at all.
bool Makes(const Removal& removal, SystemCall call) {
    const bool squeezes = removal.rev == 5 && Squeezes(static_cast<ClearMode>(removal.mode));
    switch (call) {
        case SystemCall::kWrite:
        case SystemCall::kSeek:
        case SystemCall::kFlush:
            return true;
        case SystemCall::kRead:
            return removal.rev == 5;
        case SystemCall::kSetEnd:
            return squeezes || removal.rev != 5;
        case SystemCall::kLink:
        case SystemCall::kRemove:
            return removal.mode == kSqueezeBackup;
        default:
            return squeezes;
    }
}

std::vector<Case> EveryCase() {
    constexpr std::pair<SystemCall, const char*> kCalls[] = {
        {SystemCall::kOpen, "Open"},     {SystemCall::kRead, "Read"},
        {SystemCall::kWrite, "Write"},   {SystemCall::kSeek, "Seek"},
        {SystemCall::kSetEnd, "SetEnd"}, {SystemCall::kFileSize, "FileSize"},
        {SystemCall::kFlush, "Flush"},   {SystemCall::kTakeOwnerAndMode, "TakeOwnerAndMode"},
        {SystemCall::kRename, "Rename"}, {SystemCall::kLink, "Link"},
        {SystemCall::kRemove, "Remove"}, {SystemCall::kFlushDirectory, "FlushDirectory"}};
    std::vector<Case> cases;
    for (const Removal& removal : kRemovals) {
        for (const auto& [call, name] : kCalls) {
            if (!Makes(removal, call)) {
                continue;
            }
            cases.push_back({removal, call, name, Repeat::kOnce});
            cases.push_back({removal, call, name, Repeat::kFromThenOn});
        }
    }
    return cases;
}

std::string NameOf(const ::testing::TestParamInfo<Case>& info) {
    return std::string(info.param.removal.name) + info.param.callName +
           (info.param.repeat == Repeat::kOnce ? "Once" : "ForGood");
}

// Runs the removal with a fault at its first call of the kind, at the second, and so on, until it
// makes fewer: `arm` plans the fault, `expectFailed` looks at what a failed one leaves. Returns how
// many faults struck.
template <typename Arm, typename ExpectFailed>
u32 RunWithEachFault(const Removal& removal, SystemCall call, Arm arm, ExpectFailed expectFailed) {
    for (u32 nth = 1; nth < 60; ++nth) {
        PartlyFlushed storage;
        const u32 before = CallCount(call);
        arm(nth);
        const LogCapture log;
        const u32 rc = removal.Do(storage);
        const bool struck = CallCount(call) - before >= nth;
        StopFailing(call);
        if (rc != RC_OK) {
            expectFailed(storage, rc, log);
        } else {
            EXPECT_EQ(storage.State(), StorageState::kOpen);
        }
        MoveBackupBackIfToldTo(storage, log);
        ExpectOldOrNew(storage, removal, rc == RC_OK);
        if (!struck || ::testing::Test::HasFailure()) {
            return nth - 1;
        }
    }
    ADD_FAILURE() << "it makes many such calls";
    return 0;
}

class FailureOfARemoval : public ::testing::TestWithParam<Case> {
  protected:
    static void ExpectFailed(TestStorage& storage, const Removal& removal, u32 rc,
                             const LogCapture& log) {
        EXPECT_TRUE(rc == RC_SYSTEM_ERROR || rc == RC_SHORT_READ) << rc;
        if (log.CountContaining("Cannot flush data before clear old revs;clear rev ") > 0) {
            ExpectWayOut(storage);
            return;
        }
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        const bool saysWhy =
            log.CodeOf(removal.message) == rc || log.CodeOf("Enum from disk failed") == rc ||
            (RunsAsynchronously() &&
             log.CountContaining("Get error after wait for ") +
                     log.CountContaining("Storage writer failed to process wait for ") >
                 0);
        EXPECT_TRUE(saysWhy) << log;
    }

    const ScopedSystemCalls m_systemCalls;
};

INSTANTIATE_TEST_SUITE_P(Of, FailureOfARemoval, ::testing::ValuesIn(EveryCase()), NameOf);

}  // namespace

TEST_P(FailureOfARemoval, LeavesTheOldOrTheNewContent) {
    const Removal& removal = GetParam().removal;
    if (GetParam().call == SystemCall::kFlush && removal.mode == kLogical && removal.rev == 5) {
        SKIP_WHEN_ASYNC("a flush to the disk at each commit");
    }
    const u32 struck = RunWithEachFault(
        removal, GetParam().call,
        [](u32 nth) {
            Fail(GetParam().call, nth, SystemErrorKind::kInputOutput, GetParam().repeat);
        },
        [&](TestStorage& storage, u32 rc, const LogCapture& log) {
            ExpectFailed(storage, removal, rc, log);
        });
    EXPECT_GT(struck, 0U) << "it makes such a call";
}

// --- Short writes ------------------------------------------------------------------------------

namespace {

class ShortWriteOfARemoval : public ::testing::TestWithParam<Removal> {
  protected:
    const ScopedSystemCalls m_systemCalls;
};

INSTANTIATE_TEST_SUITE_P(Of, ShortWriteOfARemoval,
                         ::testing::Values(kRemovals[0], kRemovals[1], kRemovals[2]),
                         NameOfRemoval);

}  // namespace

// The disk is full in the middle of a write. (A beginning that was half written
// over is lost, as the header says of clears of everything.)
TEST_P(ShortWriteOfARemoval, LeavesTheOldOrTheNewContent) {
    const u32 struck = RunWithEachFault(
        GetParam(), SystemCall::kWrite, [](u32 nth) { ShortWrite(nth, 20); },
        [](TestStorage& storage, u32 rc, const LogCapture&) {
            EXPECT_EQ(rc, RC_SYSTEM_ERROR);
            EXPECT_NE(storage.State(), StorageState::kOpen);
            if (storage.State() == StorageState::kFlushFailed) {
                ExpectWayOut(storage);
            }
        });
    EXPECT_GT(struck, 0U);
}

// --- Exhausted memory --------------------------------------------------------------------------

namespace {

class ClearWithoutMemory : public ::testing::TestWithParam<Removal> {
  protected:
    static void ExpectGivenUp(TestStorage& storage, u32 rc) {
        EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_SYSTEM_ERROR) << rc;
        if (storage.State() == StorageState::kFlushFailed) {
            ExpectWayOut(storage);
        } else {
            EXPECT_EQ(storage.State(), StorageState::kBroken);
        }
    }

    const ScopedSystemCalls m_systemCalls;
};

INSTANTIATE_TEST_SUITE_P(Of, ClearWithoutMemory, ::testing::ValuesIn(kRemovals), NameOfRemoval);

}  // namespace

TEST_P(ClearWithoutMemory, OfTheBuffersAnswersItsCode) {
    RunWithEachFault(
        GetParam(), SystemCall::kAlloc, [](u32 nth) { FailAlloc(nth); },
        [](TestStorage& storage, u32 rc, const LogCapture&) {
            EXPECT_EQ(rc, RC_NO_MEMORY);
            ExpectGivenUp(storage, rc);
        });
}

TEST_P(ClearWithoutMemory, OfItsOwnThrowsNothing) {
    for (u32 nth = 1;; ++nth) {
        PartlyFlushed storage;
        u32 rc = RC_OK;
        bool struck = false;
        {
            const FailNthNew fault(nth);
            EXPECT_NO_THROW(rc = GetParam().Do(storage));
            struck = fault.Struck();
        }
        if (rc != RC_OK) {
            ExpectGivenUp(storage, rc);
        }
        ExpectOldOrNew(storage, GetParam(), rc == RC_OK);
        if (!struck || HasFailure()) {
            return;
        }
        ASSERT_LT(nth, 200U);
    }
}

// --- Single steps ------------------------------------------------------------------------------

TEST(FlushBeforeAClear, ThatFailsLeavesTheStorageWithAFailedFlush) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        ClearableStorage storage(AllKeepings()[3]);
        storage.Put(5);
        FailWrite(1);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(3, mode), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Cannot flush data before clear old revs;clear rev 3"),
                  RC_SYSTEM_ERROR)
            << log;
        EXPECT_TRUE(
            log.Has(K9SYS_LOG_ERROR, "Cannot flush data before clear old revs;clear rev 3"));
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        EXPECT_EQ(storage.Clear(3, mode), RC_WRONG_STATE);
        EXPECT_EQ(storage.Rollback(), RC_NO_TRANSACTION_TO_ROLLBACK);
        storage.ClearTo(3, mode);
        storage.ExpectContentForLife();
    }
}

TEST(SearchOfAClear, ThatFailsSaysSoAndBreaksTheStorage) {
    const ScopedSystemCalls systemCalls;
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(KeepOnDisk());
        storage.Put(9);
        storage.Settle();
        FailRead(1);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(4, mode), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(log.CountContaining("Squeeze enum"), 0U);
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        storage.Reopen();
        storage.ExpectContentForLife();
    }
}

TEST(SearchOfAClear, ThatMeetsDamagedBytesBreaksTheStorage) {
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(KeepOnDisk());
        storage.Put(9);
        storage.Settle();
        const u8 noSignature[] = {1, 2, 3, 4};
        PatchBytes(storage.Path(), kFirstItemOffset, noSignature);
        const LogCapture log;
        EXPECT_EQ(storage.Clear(2, mode), RC_BAD_DATA);
        EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_BAD_DATA) << log;
        EXPECT_EQ(storage.State(), StorageState::kBroken);
    }
}

TEST(SearchOfAClear, ThatKnowsNoOffsetBreaksTheStorage) {
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    ASSERT_EQ(storage.WaitForWriter(), RC_OK);
    *StorageAccess::Blocks(storage.Object()).FileOffsetOf(3) = kUnknownOffset;
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kLogical), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Enum from disk failed"), RC_BAD_DATA) << log;
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST(ClearOfAClosedFile, BreaksTheStorage) {
    for (const auto& [mode, rev] : {std::pair{kLogical, 3}, {kSqueeze, 3}, {kLogical, 9}}) {
        ClearableStorage storage(KeepInMemory());
        storage.Put(5);
        storage.Object().SolidStorage().Close();
        EXPECT_EQ(storage.Clear(rev, mode), RC_NO_WRITER);
        EXPECT_NE(storage.State(), StorageState::kOpen);
    }
}

TEST(RevisionMark, ThatCannotBeWrittenLeavesTheStateAndTheMark) {
    const ScopedSystemCalls systemCalls;
    ClearableStorage storage(KeepInMemory());
    storage.Put(5);
    ASSERT_EQ(storage.Clear(2, kMark), RC_OK);
    FailWrite(1);
    const LogCapture log;
    EXPECT_EQ(storage.Clear(3, kMark), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to set revision mark 3 to solid storage"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(storage.RevisionMark(), 2);
    storage.ExpectContentForLife();
    EXPECT_EQ(storage.RevisionMark(), 2);
}

}  // namespace k9erepl::test
