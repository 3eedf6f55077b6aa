// Clears and truncations that fail at any of their system calls: the code, the state, the message,
// and that after reopening everything is there as it was before or after.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

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

constexpr Removal kRemovals[] = {
    {"LogicalClear", kLogical, 5, "Failed to set clear rev to solid storage;rev 5"},
    {"Squeeze", kSqueeze, 5, "Failed to squeeze solid storage;rev 5"},
    {"SqueezeWithBackup", kSqueezeBackup, 5, "Failed to squeeze solid storage;rev 5"},
    {"ClearOfEverything", kSqueeze, 10,
     "Failed to truncate solid storage while clear old revs;clear rev 10"},
    {"Truncation", Removal::kTruncation, 0, "Failed to truncate solid storage"}};

// Records 1 to 9, of which the last ones are only in memory. Everything is forced to the disk and
// the file grows in steps: every kind of call is made.
struct PartlyFlushed : TestStorage {
    PartlyFlushed()
        : TestStorage(
              "flush_mode=PerTrans;flush_trans_num=5;flush_timeout=2147483647;"
              "read_buffers_count=1;block_size=138;cache_type=Last2;force_flush=yes;"
              "file_size_delta=1;file_initial_size=1;") {
        for (i64 rev = 1; rev <= 9; ++rev) {
            EXPECT_EQ(Insert(ClearableStorage::TextOf(rev)), RC_OK);
        }
        EXPECT_EQ(WaitForWriter(), RC_OK);
    }
};

class FailureOfARemoval : public ::testing::TestWithParam<Removal> {
  protected:
    // The code and the message of a removal that failed.
    static void ExpectFailed(TestStorage& storage, u32 rc, const LogCapture& log) {
        EXPECT_TRUE(rc == RC_SYSTEM_ERROR || rc == RC_SHORT_READ || rc == RC_NO_MEMORY) << rc;
        if (log.CountContaining("Cannot flush data before clear old revs;clear rev ") > 0) {
            // A synchronous writer has a way out; a writing thread that failed has none but
            // reopening.
            EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
            EXPECT_EQ(storage.Commit(), RC_NO_TRANSACTION);
            EXPECT_TRUE(storage.State() == StorageState::kOpen || RunsAsynchronously());
            return;
        }
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        const bool saysWhy =
            rc == RC_NO_MEMORY || log.CodeOf(GetParam().message) == rc ||
            log.CodeOf("Enum from disk failed") == rc ||
            (RunsAsynchronously() &&
             log.CountContaining("Get error after wait for ") +
                     log.CountContaining("Storage writer failed to process wait for ") >
                 0);
        EXPECT_TRUE(saysWhy) << log;
    }
    // What reopening shows must be what was there before or what is there after, and must go on.
    static void ExpectOldOrNew(TestStorage& storage, bool succeeded, const LogCapture& log) {
        // Where the backup is made by a move, and nothing can be moved back, a message names it.
        if (!Exists(storage.Path())) {
            const std::string where = "; storage data is in file: '" + BackupPath(storage) + "'";
            EXPECT_EQ(log.CountContaining(where), 1U) << log;
            EXPECT_TRUE(platform::MoveFileReplacing(BackupPath(storage), storage.Path()));
        }
        storage.Close();
        EXPECT_FALSE(Exists(TemporaryPath(storage)));
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        const Revs now = RevsOf(storage.Records());
        const Revs then = GetParam().rev == 5 ? RevRange(5, 9) : Revs();
        // A storage that broke does not flush its tail when it is closed.
        EXPECT_TRUE(now == then || (!succeeded && (now == RevRange(1, 9) || now == RevRange(1, 5))))
            << ::testing::PrintToString(now);
        const i64 next = storage.NextRev();
        ASSERT_EQ(storage.Insert("goes on"), RC_OK);
        ASSERT_EQ(storage.Clear(next, kSqueeze), RC_OK);
        storage.Reopen();
        EXPECT_EQ(storage.Records(), SeenRecords({{next, 0, "goes on"}}));
    }

    const ScopedSystemCalls m_systemCalls;
};

INSTANTIATE_TEST_SUITE_P(Of, FailureOfARemoval, ::testing::ValuesIn(kRemovals), NameOfRemoval);

}  // namespace

// A fault at the first call of each kind, at the second, and so on, until it makes fewer.
TEST_P(FailureOfARemoval, LeavesTheOldOrTheNewContent) {
    for (const SystemCall call :
         {SystemCall::kOpen, SystemCall::kRead, SystemCall::kWrite, SystemCall::kSeek,
          SystemCall::kSetEnd, SystemCall::kFileSize, SystemCall::kFlush,
          SystemCall::kTakeOwnerAndMode, SystemCall::kRename, SystemCall::kLink,
          SystemCall::kRemove, SystemCall::kFlushDirectory, SystemCall::kAlloc}) {
        for (const Repeat repeat : {Repeat::kOnce, Repeat::kFromThenOn}) {
            bool struck = true;
            for (u32 nth = 1; struck && !HasFailure(); ++nth) {
                ASSERT_LT(nth, 60U);
                SCOPED_TRACE("call " + std::to_string(static_cast<int>(call)) + " no. " +
                             std::to_string(nth));
                PartlyFlushed storage;
                const u32 before = CallCount(call);
                Fail(call, nth, SystemErrorKind::kInputOutput, repeat);
                const LogCapture log;
                const u32 rc = GetParam().Do(storage);
                struck = CallCount(call) - before >= nth;
                StopFailing(call);
                if (rc == RC_OK) {
                    EXPECT_EQ(storage.State(), StorageState::kOpen);
                } else {
                    ExpectFailed(storage, rc, log);
                }
                ExpectOldOrNew(storage, rc == RC_OK, log);
            }
        }
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
        const char* const text = "Cannot flush data before clear old revs;clear rev 3";
        EXPECT_EQ(log.CodeOf(text), RC_SYSTEM_ERROR) << log;
        EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, text));
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
