// A flush that fails: the code and the message of each step, that it leaves nothing behind in
// memory, and that what it leaves in the storage file is cleared.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/fixed_log.h"
#include "support/log_capture.h"
#include "support/new_fault.h"
#include "support/storage_file_builder.h"

namespace k9erepl::test {
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

    // A failed flush left nothing, and the next one succeeds.
    void ExpectUntouchedAndFlushable() {
        EXPECT_EQ(StorageAccess::FlushedRev(Object()), 0);
        EXPECT_EQ(Block().flushedEnd, 0U);
        EXPECT_EQ(FileOffset(), kUnknownOffset);
        i64 flushedRev = -1;
        EXPECT_EQ(Object().SolidStorage().GetFlushedRev(&flushedRev), RC_OK);
        EXPECT_EQ(flushedRev, 0);
        EXPECT_EQ(Flush(), RC_OK);
        EXPECT_EQ(FileItems(*this), Strings({"c0", "r1", "r2", "c2"}));
    }
};

}  // namespace

TEST(FlushFailure, OfAStepNamesItAndLeavesNothingBehind) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    for (const auto& [call, nth, text] :
         {std::tuple{SystemCall::kWrite, 1U, "Failed to flush data from rev 1"},
          {SystemCall::kWrite, 2U, "Failed to write commit block 1"},
          {SystemCall::kFlush, 1U, "Failed to commit in solid storage"}}) {
        Notified flushed;
        HalfFlushable storage;
        flushed.SetAsOnFlush(storage);
        const LogCapture log;
        Fail(call, nth);
        EXPECT_EQ(storage.Flush(), RC_SYSTEM_ERROR);
        EXPECT_EQ(log.CodeOf(text), RC_SYSTEM_ERROR) << log;
        EXPECT_EQ(flushed.Calls(), Revs());
        storage.ExpectUntouchedAndFlushable();
    }
}

TEST(FlushFailure, WithAFailedRollbackKeepsTheFirstCode) {
    const ScopedSystemCalls systemCalls;
    HalfFlushable storage;
    const LogCapture log;
    storage.Block().Data()[storage.Block().flushedEnd] ^= 1;
    FailSeek(1);
    EXPECT_EQ(storage.Flush(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Wrong rec signature while enum to flush;block eRepl#0"), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("Cannot rollback trans"), RC_SYSTEM_ERROR) << log;
    storage.Block().Data()[storage.Block().flushedEnd] ^= 1;
    storage.ExpectUntouchedAndFlushable();
}

TEST(FlushFailure, OfABlockThatTheIndexDoesNotList) {
    HalfFlushable storage;
    auto& index = StorageAccess::Entries(StorageAccess::Blocks(storage.Object()));
    auto entry = index.extract(1);
    const LogCapture log;
    EXPECT_EQ(storage.Flush(), RC_BAD_DATA);
    EXPECT_EQ(log.CodeOf("No block found while try to flush;rev 1"), RC_BAD_DATA) << log;
    index.insert(std::move(entry));
    storage.ExpectUntouchedAndFlushable();
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

TEST(FlushFailure, OfAFullDiskIsOverWhenThereIsRoomAgain) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    const ScopedSystemCalls systemCalls;
    TestStorage storage(kFlushAlways);
    storage.InsertCommitted({"one"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    ShortWrite(1, 10);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().transactions, 1U);
    FailWrite(1, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    StopFailing(SystemCall::kWrite);
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(StorageAccess::Policy(storage.Object()).Now().transactions, 0U);
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

// --- What a failed flush leaves in the file ------------------------------------------------------

namespace {

// A rollback and the close clear it, so that no reopening serves what the client gave up.
class UndoneBytes : public ::testing::Test {
  protected:
    void SetUp() override { SKIP_WHEN_ASYNC("a failed flush to disk is reported by the flush"); }

    // A transaction whose flush to the disk fails; it is open again.
    void FailCommit(std::initializer_list<std::string_view> texts) {
        ASSERT_EQ(m_storage.Begin(), RC_OK);
        for (const std::string_view text : texts) {
            ASSERT_EQ(m_storage.Insert(text), RC_OK);
        }
        FailFlush(1);
        ASSERT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    }
    Strings Reopened() {
        m_storage.Reopen();
        return m_storage.Texts();
    }
    Strings Items() { return FileItems(m_storage); }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{With(kFlushAlways, "force_flush=yes;")};
};

}  // namespace

TEST_F(UndoneBytes, AreClearedByTheRollback) {
    m_storage.InsertCommitted({"kept"});
    FailCommit({"two", "three"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1", "r2", "r3", "c3"}));
    const std::size_t size = ReadBytes(m_storage.Path()).size();
    EXPECT_EQ(m_storage.Rollback(), RC_OK);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(ReadBytes(m_storage.Path()).size(), size);
    FailFlush(1);
    EXPECT_EQ(m_storage.Insert("gone"), RC_SYSTEM_ERROR);
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"})) << "outside a transaction at once";
    EXPECT_EQ(Reopened(), Strings({"kept"}));
    EXPECT_EQ(m_storage.NextRev(), 2);
}

TEST_F(UndoneBytes, ThatTheRollbackDoesNotClearAreClearedByTheClose) {
    m_storage.InsertCommitted({"kept"});
    FailCommit({"gone"});
    EXPECT_EQ(Reopened(), Strings({"kept"})) << "without a rollback";
    for (const SystemCall call : {SystemCall::kFileSize, SystemCall::kSetEnd, SystemCall::kFlush}) {
        FailCommit({"gone"});
        const LogCapture log;
        Fail(call, 1);
        EXPECT_EQ(m_storage.Rollback(), RC_OK);
        EXPECT_EQ(log.CountContaining("Cannot clear abandoned data;offset "), 1U) << log;
        EXPECT_EQ(m_storage.State(), StorageState::kOpen);
        EXPECT_EQ(Reopened(), Strings({"kept"}));
    }
}

TEST_F(UndoneBytes, ThatTheRollbackCannotClearAreClearedByTheNextWrite) {
    FailCommit({"gone", "gone"});
    FailSetEnd(1);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.InsertCommitted({"other"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "c1"}));
    EXPECT_EQ(Reopened(), Strings({"other"}));
}

// What was committed before, and not flushed by then, is not given up with the transaction.
TEST_F(UndoneBytes, AreReplacedByWhatWasCommittedBefore) {
    m_storage.Reopen("flush_mode=PerTrans;flush_trans_num=3;flush_timeout=3600000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    m_storage.InsertCommitted({"two"});
    FailCommit({"gone"});
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "r3", "c3"}));
    EXPECT_EQ(Reopened(), Strings({"one", "two"}));
    EXPECT_EQ(Items(), Strings({"c0", "r1", "r2", "c2"}));
}

// They hold nothing but what was committed: the reopening may find it.
TEST_F(UndoneBytes, OfAnIdleFlushAndOfTheLastOneAreKept) {
    SetTickCount(5000);
    m_storage.Reopen("flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=1000;force_flush=yes");
    m_storage.InsertCommitted({"one"});
    AdvanceTickCount(1000);
    FailFlush(1);
    ASSERT_EQ(m_storage.DataSource().FlushOnIdle(), RC_SYSTEM_ERROR);
    ASSERT_EQ(m_storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(Reopened(), Strings({"one"}));
    m_storage.InsertCommitted({"two"});
    FailFlush(1);
    EXPECT_EQ(Reopened(), Strings({"one", "two"}));
}

TEST_F(UndoneBytes, ThatWereNeverThereCostNothing) {
    m_storage.InsertCommitted({"kept"});
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("gone"), RC_OK);
    const u32 ends = CallCount(SystemCall::kSetEnd);
    const u32 sizes = CallCount(SystemCall::kFileSize);
    const u32 flushes = CallCount(SystemCall::kFlush);
    ASSERT_EQ(m_storage.Rollback(), RC_OK);
    m_storage.Close();
    EXPECT_EQ(CallCount(SystemCall::kSetEnd), ends);
    EXPECT_EQ(CallCount(SystemCall::kFileSize), sizes);
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes);
}

TEST(BytesThatALoadFound, StayUntilTheFirstWrite) {
    TestStorage storage(With(kFlushAlways, "force_flush=yes;"), Start::kNothing);
    FileBuilder file;
    file.NewFile().Record(1, "one").Commit(0, 1).Record(2, "never committed").Zeros(100);
    file.Save(storage.Path());
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("gone"), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    EXPECT_EQ(FileBytes(storage), file.Bytes());
    storage.Close();
    EXPECT_EQ(ReadBytes(storage.Path()), file.Bytes());
}

}  // namespace k9erepl::test
