// A flush that fails at any of its system calls, once or for good: its code and messages, and that
// nothing acknowledged is lost, nothing is written twice and no half transaction is served.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "format/storage_file_format.h"
#include "support/fault_injection.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

// Small blocks, growth in steps of 1 MiB, everything forced to the disk: a flush makes every kind
// of call that it can make.
constexpr std::string_view kAllCalls =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=2147483647;read_buffers_count=1;"
    "block_size=138;force_flush=yes;file_size_delta=1;";

struct Fault {
    SystemCall call;
    SystemErrorKind kind;
    Repeat repeat;
    std::string_view settings = "";  // besides those of every test
};

void PrintTo(const Fault& fault, std::ostream* out) {
    *out << "call " << static_cast<int>(fault.call)
         << (fault.repeat == Repeat::kOnce ? " once" : " for good") << " " << fault.settings;
}

// Runs a scenario with the fault at the first call of the flush, at the second, and so on, until
// a flush makes fewer calls than that.
class EachCallOfAFlush : public ::testing::TestWithParam<Fault> {
  protected:
    void SetUp() override {
        SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    }

    // The scenario begins with a commit that has failed; `prepare` comes before that.
    template <typename Scenario, typename Prepare = void (*)(TestStorage&)>
    void Run(
        Scenario scenario, Prepare prepare = [](TestStorage&) {}) {
        for (u32 nth = 1; nth < 20; ++nth) {
            WithOneRecord storage;
            prepare(storage);
            if (!FailCommit(storage, nth)) {
                EXPECT_GT(nth, 1U) << "a flush makes such a call";
                return;
            }
            scenario(storage);
        }
        FAIL() << "a flush makes many calls";
    }

    struct OnFlush {
        Notified flushed;
    };
    // A storage with one flushed record, whose next flush has to grow the file.
    struct WithOneRecord : OnFlush, TestStorage {
        WithOneRecord() : TestStorage(kFlushAlways) {
            InsertCommitted({"one"});
            Reopen(With(kAllCalls, GetParam().settings));
            flushed.SetAsOnFlush(*this);
        }
    };

    // A transaction of three blocks, whose commit fails at the n-th call. False when it succeeds.
    static bool FailCommit(TestStorage& storage, u32 nth) {
        EXPECT_EQ(storage.Begin(), RC_OK);
        for (const char* text : {"two", "three", "four"}) {
            EXPECT_EQ(storage.Insert(BlockFull(text)), RC_OK);
        }
        const Fault fault = GetParam();
        Fail(fault.call, nth, fault.kind, fault.repeat);
        const LogCapture log;
        const u32 rc = storage.Commit();
        if (rc == RC_OK) {
            return false;
        }
        EXPECT_EQ(rc, RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf("Failed to flush data"), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        return true;
    }

    // What the file holds after a reopening, with its chain unbroken.
    static void ExpectFile(TestStorage& storage, const Strings& texts, const Strings& items) {
        StopFailing(GetParam().call);
        storage.Reopen();
        Strings seen;
        for (const std::string& text : storage.Texts()) {
            seen.push_back(text.substr(0, text.find('.')));
        }
        EXPECT_EQ(seen, texts);
        EXPECT_EQ(FileItems(storage), items);
    }

    // With one more, nothing is lost and nothing twice.
    static void ExpectFiveRecords(TestStorage& storage) {
        storage.InsertCommitted({"five"});
        ExpectFile(storage, {"one", "two", "three", "four", "five"},
                   {"c0", "r1", "c1", "r2", "r3", "r4", "c4", "r5", "c5"});
    }

    const ScopedSystemCalls m_systemCalls;
};

Fault Once(SystemCall call, SystemErrorKind kind) {
    return {call, kind, Repeat::kOnce};
}
Fault ForGood(SystemCall call, SystemErrorKind kind) {
    return {call, kind, Repeat::kFromThenOn};
}

const Fault kNoRoom = ForGood(SystemCall::kWrite, SystemErrorKind::kNoSpace);
const Fault kNoSeek = ForGood(SystemCall::kSeek, SystemErrorKind::kInputOutput);
const Fault kNoGrowth = ForGood(SystemCall::kSetEnd, SystemErrorKind::kNoSpace);
const Fault kNoDisk = ForGood(SystemCall::kFlush, SystemErrorKind::kInputOutput);

INSTANTIATE_TEST_SUITE_P(Once, EachCallOfAFlush,
                         ::testing::Values(Once(kNoRoom.call, kNoRoom.kind),
                                           Once(kNoSeek.call, kNoSeek.kind),
                                           Once(kNoGrowth.call, kNoGrowth.kind),
                                           Once(kNoDisk.call, kNoDisk.kind)));
INSTANTIATE_TEST_SUITE_P(ForGood, EachCallOfAFlush,
                         ::testing::Values(kNoRoom, kNoSeek, kNoGrowth, kNoDisk));

// Two writes and two flushes for what is else one.
Fault BehindABarrier(Fault fault) {
    fault.settings = "commit_barrier=yes;";
    return fault;
}
INSTANTIATE_TEST_SUITE_P(OnceBehindABarrier, EachCallOfAFlush,
                         ::testing::Values(BehindABarrier(Once(kNoRoom.call, kNoRoom.kind)),
                                           BehindABarrier(Once(kNoSeek.call, kNoSeek.kind)),
                                           BehindABarrier(Once(kNoGrowth.call, kNoGrowth.kind)),
                                           BehindABarrier(Once(kNoDisk.call, kNoDisk.kind))));
INSTANTIATE_TEST_SUITE_P(ForGoodBehindABarrier, EachCallOfAFlush,
                         ::testing::Values(BehindABarrier(kNoRoom), BehindABarrier(kNoSeek),
                                           BehindABarrier(kNoGrowth), BehindABarrier(kNoDisk)));

using EachCallOfARetry = EachCallOfAFlush;
const Fault kNoSize = ForGood(SystemCall::kFileSize, SystemErrorKind::kInputOutput);
INSTANTIATE_TEST_SUITE_P(ForGood, EachCallOfARetry,
                         ::testing::Values(kNoRoom, kNoSeek, kNoGrowth, kNoDisk, kNoSize));

using EachLastingFault = EachCallOfAFlush;
INSTANTIATE_TEST_SUITE_P(ForGood, EachLastingFault, ::testing::Values(kNoRoom, kNoSeek, kNoDisk));

}  // namespace

TEST_P(EachCallOfAFlush, CommitTriesAgainWhenTheFaultIsGone) {
    Run([](WithOneRecord& storage) {
        EXPECT_EQ(storage.flushed.Calls(), Revs());
        StopFailing(GetParam().call);
        EXPECT_EQ(storage.Commit(), RC_OK);
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(storage.flushed.Calls(), Revs({4}));
        ExpectFiveRecords(storage);
    });
}

TEST_P(EachLastingFault, MakesEveryFurtherCommitFail) {
    Run([](WithOneRecord& storage) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
            EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
        }
        StopFailing(GetParam().call);
        EXPECT_EQ(storage.Commit(), RC_OK);
        ExpectFiveRecords(storage);
    });
}

TEST_P(EachCallOfAFlush, RollbackGivesTheTransactionUp) {
    Run([](WithOneRecord& storage) {
        EXPECT_EQ(storage.Rollback(), RC_OK);
        EXPECT_EQ(storage.State(), StorageState::kOpen);
        EXPECT_EQ(storage.NextRev(), 2);
        StopFailing(GetParam().call);
        storage.InsertCommitted({"other"});
        storage.InsertCommitted({"more"});
        ExpectFile(storage, {"one", "other", "more"}, {"c0", "r1", "c1", "r2", "c2", "r3", "c3"});
    });
}

TEST_P(EachCallOfAFlush, ClosingThenLeavesWhatWasAcknowledged) {
    Run([](WithOneRecord& storage) {
        StopFailing(GetParam().call);
        storage.Reopen();
        EXPECT_EQ(storage.Texts(), Strings({"one"}));
        storage.InsertCommitted({"last"});
        storage.Reopen();
        EXPECT_EQ(storage.Texts(), Strings({"one", "last"}));
    });
}

// The second attempt also clears what the first one left behind.
TEST_P(EachCallOfARetry, MayFailToo) {
    const auto failOnce = [](TestStorage& storage) {
        FailFlush(1);
        FailFileSize(1);  // of the clearing at the rollback
        EXPECT_EQ(storage.Insert("gone"), RC_SYSTEM_ERROR);
    };
    Run(
        [](WithOneRecord& storage) {
            StopFailing(GetParam().call);
            EXPECT_EQ(storage.Commit(), RC_OK);
            ExpectFiveRecords(storage);
        },
        failOnce);
}

// --- The messages of each step -----------------------------------------------------------------

namespace {

// A storage with one committed transaction that is not in the file yet, and open on top of it a
// transaction in the same block: a flush writes a run and a commit block of its own.
struct HalfFlushable : TestStorage {
    HalfFlushable() : TestStorage(With(kFlushNever, "force_flush=yes;")) {
        InsertCommitted({"one", "two"});
        EXPECT_EQ(Begin(), RC_OK);
        EXPECT_EQ(Insert("three"), RC_OK);
    }
    u32 Flush() { return StorageAccess::Flush(Object()); }
    K9eReplBlock& Block() { return StorageAccess::Blocks(Object()).Newest(); }
    i64 FileOffset() { return StorageAccess::Blocks(Object()).Index().begin()->second.fileOffset; }

    void ExpectUntouched() {
        EXPECT_EQ(StorageAccess::FlushedRev(Object()), 0);
        EXPECT_EQ(Block().flushedEnd, 0U);
        EXPECT_EQ(FileOffset(), kUnknownOffset);
        i64 flushedRev = -1;
        EXPECT_EQ(Object().SolidStorage().GetFlushedRev(&flushedRev), RC_OK);
        EXPECT_EQ(flushedRev, 0);
    }
    void ExpectFlushable() {
        EXPECT_EQ(Flush(), RC_OK);
        EXPECT_EQ(FileItems(*this), Strings({"c0", "r1", "r2", "c2"}));
    }
};

}  // namespace

TEST(FlushFailure, OfTheRunOrItsCommitBlockNamesTheFirstRevisionThatIsNotFlushed) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    for (const auto& [nth, text] : {std::pair(1U, "Failed to flush data from rev 1"),
                                    {2U, "Failed to write commit block 1"}}) {
        HalfFlushable storage;
        const LogCapture log;
        FailWrite(nth);
        EXPECT_EQ(storage.Flush(), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf(text), RC_SYSTEM_ERROR) << log;
        storage.ExpectUntouched();
        storage.ExpectFlushable();
    }
}

TEST(FlushFailure, OfTheFilesCommitLeavesTheFlushedRevision) {
    SKIP_WHEN_ASYNC("a flush to the disk at each commit");
    const ScopedSystemCalls systemCalls;
    Notified flushed;
    HalfFlushable storage;
    flushed.SetAsOnFlush(storage);
    const LogCapture log;
    FailFlush(1);
    EXPECT_EQ(storage.Flush(), RC_SYSTEM_ERROR);
    EXPECT_EQ(log.CodeOf("Failed to commit in solid storage"), RC_SYSTEM_ERROR) << log;
    EXPECT_EQ(flushed.Calls(), Revs());
    storage.ExpectUntouched();
    storage.ExpectFlushable();
}

TEST(FlushFailure, WithAFailedRollbackKeepsTheFirstCode) {
    const ScopedSystemCalls systemCalls;
    HalfFlushable storage;
    const LogCapture log;
    StorageAccess::Blocks(storage.Object()).Newest().Data()[storage.Block().flushedEnd] ^= 1;
    FailSeek(1);
    EXPECT_EQ(storage.Flush(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Wrong rec signature while enum to flush;block eRepl#0"), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Cannot rollback trans"), RC_SYSTEM_ERROR) << log;
    StorageAccess::Blocks(storage.Object()).Newest().Data()[storage.Block().flushedEnd] ^= 1;
    storage.ExpectUntouched();
    storage.ExpectFlushable();
}

TEST(FlushFailure, OfABlockThatTheIndexDoesNotList) {
    HalfFlushable storage;
    auto& index = StorageAccess::Entries(StorageAccess::Blocks(storage.Object()));
    auto entry = index.extract(1);
    const LogCapture log;
    EXPECT_EQ(storage.Flush(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("No block found while try to flush;rev 1"), RC_BAD_DATA) << log;
    index.insert(std::move(entry));
    storage.ExpectUntouched();
    storage.ExpectFlushable();
}

TEST(FlushFailure, OfTheFilesBeginReturnsItsCode) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    storage.Object().SolidStorage().Close();
    const LogCapture log;
    EXPECT_EQ(storage.Commit(), RC_NO_WRITER);
    EXPECT_EQ(log.CodeOf("Failed to begin trans in solid storage"), RC_NO_WRITER) << log;
    EXPECT_EQ(log.CodeOf("Failed to flush data"), RC_NO_WRITER) << log;
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(StorageAccess::TransDepth(storage.Object()), 1U);
}

TEST(FlushFailure, LeavesCountersAndFlushTimeAsTheyWere) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=500;");
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    FailWrite(1);
    ASSERT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().transactions, 2U);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().transactions, 0U);
}

TEST(FlushFailure, OfAFullDiskIsOverWhenThereIsRoomAgain) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    ShortWrite(1, 10);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    StopFailing(SystemCall::kWrite);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
}

TEST(FlushFailure, InMemoryOfItsOwnLeavesNothingBehind) {
    TestStorage storage(With(kFlushNever, "block_size=138;"));
    for (int i = 0; i < 5; ++i) {
        storage.InsertCommitted({BlockFull("full")});
    }
    for (u32 nth = 1;; ++nth) {
        const FixedLog log;
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            rc = StorageAccess::Flush(storage.Object());
            if (!fault.Struck()) {
                break;
            }
        }
        EXPECT_EQ(rc, RC_NO_MEMORY);
        // Else the queue found no memory for an element.
        EXPECT_TRUE(RunsAsynchronously() ||
                    log.HasError("Out of memory while flushing;block eRepl#", RC_NO_MEMORY));
        EXPECT_EQ(StorageAccess::Blocks(storage.Object()).Index().begin()->second.fileOffset,
                  kUnknownOffset);
    }
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "r2", "r3", "r4", "r5", "c5"}));
}

}  // namespace k9erepl::test
