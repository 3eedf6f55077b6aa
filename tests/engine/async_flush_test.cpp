// Flushes with the asynchronous writer: they are queued, what is queued stays in memory and is
// served from there, and everything reaches the file in order.
#include <atomic>

#include "engine/write_gate.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

using AsyncFlush = AsyncStorageTest;

std::size_t BlocksInMemory(TestStorage& storage) {
    return StorageAccess::Blocks(storage.Object()).Blocks().size();
}

i32 PendingWritesOfTheNewest(TestStorage& storage) {
    return StorageAccess::Blocks(storage.Object()).Newest().pendingWrites;
}

}  // namespace

TEST_F(AsyncFlush, IsQueuedWhenCommitReturnsAndReportedToOnWriteToFileWhenWritten) {
    Notified flushed;
    Notified written;
    TestStorage storage(AsyncSettings(100));
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    ShutGate();
    storage.InsertCommitted({"one", "two"});
    EXPECT_EQ(flushed.Calls(), Revs({2}));
    EXPECT_EQ(written.Calls(), Revs());
    // Each next record lies over the commit block of the flush before.
    for (const char* text : {"3", "44", "555"}) {
        storage.InsertCommitted({text});
    }
    EXPECT_EQ(FileItems(storage.Path()), Strings({"c0"}));
    EXPECT_EQ(storage.Texts(), Strings({"one", "two", "3", "44", "555"}));
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    OpenGate();
    EXPECT_EQ(FileItems(storage),
              Strings({"c0", "r1", "r2", "c2", "r3", "c3", "r4", "c4", "r5", "c5"}));
    EXPECT_EQ(written.Calls().back(), 5);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one", "two", "3", "44", "555"}));
}

// The client below holds the lock while it waits for the callback to return.
TEST_F(AsyncFlush, ItsOnWriteToFileComesOnAnotherThreadAndNeedsNoLock) {
    std::thread::id thread;
    i64 nextRev = 0;
    TestStorage* client = nullptr;
    Notified written([&](i64) {
        thread = std::this_thread::get_id();
        nextRev = client->NextRev();
    });
    TestStorage storage(AsyncSettings(100));
    client = &storage;
    written.SetAsOnWriteToFile(storage);
    ShutGate();
    storage.InsertCommitted({"one", "two"});
    WhileTheGateOpens([&] { EXPECT_EQ(storage.WaitForWriter(), RC_OK); });
    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(nextRev, 3);
}

TEST_F(AsyncFlush, ForcesTheFileToTheDiskWhenTheStorageCloses) {
    TestStorage storage(AsyncSettings(2, "force_flush=yes;"));
    storage.InsertMany(3);
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    const u32 flushes = CallCount(SystemCall::kFlush);
    storage.InsertMany(3);
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes);
    storage.Close();
    EXPECT_EQ(CallCount(SystemCall::kFlush), flushes + 1);
}

// --- Memory ------------------------------------------------------------------------------------

TEST_F(AsyncFlush, KeepsItsBlocksInMemoryUntilTheyAreWritten) {
    TestStorage storage(AsyncSettings(1));
    ShutGate();
    for (int i = 0; i < 5; ++i) {
        storage.InsertCommitted({BlockFull("full")});
    }
    EXPECT_EQ(BlocksInMemory(storage), 5U);
    EXPECT_GT(PendingWritesOfTheNewest(storage), 0);
    EXPECT_EQ(storage.Records().size(), 5U);
    OpenGate();
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(PendingWritesOfTheNewest(storage), 0);
    storage.InsertCommitted({BlockFull("full")});
    EXPECT_EQ(BlocksInMemory(storage), 1U);
    EXPECT_EQ(storage.Records().size(), 6U);
}

TEST_F(AsyncFlush, ServesEveryRangeWhileSomeOfItIsQueued) {
    ClearableStorage storage(AsyncKeeping(1));
    storage.Put(7);
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    ShutGate();
    storage.Put(6);
    ASSERT_GT(BlocksInMemory(storage), 1U);
    ExpectEveryRange(storage, storage.Content(), 13);
    OpenGate();
    storage.Settle();
    ExpectEveryRange(storage, storage.Content(), 13);
}

// The block that begins with the range's last revision is the lowest one in memory.
TEST_F(AsyncFlush, ServesARangeThatEndsAtTheFirstQueuedRecord) {
    TestStorage storage(AsyncSettings(1));
    storage.InsertCommitted({BlockFull("one")});
    storage.InsertCommitted({BlockFull("two")});
    storage.Settle();
    ShutGate();
    storage.InsertCommitted({BlockFull("three")});
    ASSERT_EQ(BlocksInMemory(storage), 1U);
    EXPECT_EQ(RevsOf(storage.Records(1, 3)), Revs({1, 2, 3}));
    EXPECT_EQ(RevsOf(storage.Records(3, 3)), Revs({3}));
    OpenGate();
}

// --- Rollbacks ---------------------------------------------------------------------------------

TEST_F(AsyncFlush, StaysQueuedWhenTheNextTransactionRollsBack) {
    TestStorage storage(AsyncSettings(100));
    ShutGate();
    storage.InsertCommitted({"kept"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("same block"), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("next block")), RC_OK);
    ASSERT_EQ(storage.Rollback(), RC_OK);
    storage.InsertCommitted({"other"});
    OpenGate();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"kept", "other"}));
}

// A flush that finds a block missing in the index behind runs that it has queued already.
TEST_F(AsyncFlush, ThatFailsIsTakenOutOfTheFileAndMayBeRepeated) {
    TestStorage storage(AsyncSettings(100));
    ShutGate();
    storage.InsertCommitted({"before"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    for (const char* text : {"two", "three", "four"}) {
        ASSERT_EQ(storage.Insert(BlockFull(text)), RC_OK);
    }
    BlockIndex& index = StorageAccess::Entries(StorageAccess::Blocks(storage.Object()));
    auto missing = index.extract(4);
    WhileTheGateOpens([&] { EXPECT_EQ(storage.Commit(), RC_BAD_DATA); });
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(index.at(1).fileOffset, 1056);
    EXPECT_EQ(index.at(2).fileOffset, kUnknownOffset);
    EXPECT_EQ(index.at(3).fileOffset, kUnknownOffset);
    index.insert(std::move(missing));
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "r3", "r4", "c4"}));
    storage.InsertCommitted({"next"});
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), RevRange(1, 5));
}

// --- Removing ----------------------------------------------------------------------------------

namespace {

// Seven records in the file, nine only queued.
struct HalfWritten : ClearableStorage {
    explicit HalfWritten(WriteGate& gate) : ClearableStorage(AsyncKeeping(2)) {
        Put(7);
        EXPECT_EQ(WaitForWriter(), RC_OK);
        gate.Shut();
        Put(9);
    }
};

class AsyncRemoval : public AsyncStorageTest, public ::testing::WithParamInterface<u32> {};

INSTANTIATE_TEST_SUITE_P(Mode, AsyncRemoval, ::testing::Values(kLogical, kSqueeze, kSqueezeBackup));

}  // namespace

TEST_P(AsyncRemoval, LosesNothingThatIsKept) {
    for (const i64 rev : {2, 3, 6, 7, 8, 9, 10, 15, 16, 17}) {
        HalfWritten storage(m_gate);
        WhileTheGateOpens([&] { storage.ClearTo(rev, GetParam()); });
        storage.ExpectContentForLife();
    }
}

TEST_F(AsyncFlush, IsUndoneByATruncation) {
    HalfWritten storage(m_gate);
    WhileTheGateOpens([&] { EXPECT_EQ(storage.Truncate(), RC_OK); });
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.InsertCommitted({"one"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

// --- A clear that finds nothing kept in the file -----------------------------------------------

namespace {

using AsyncClear = AsyncStorageTest;

// Opens a gate when the message of a finished pass over the file comes. Takes the sink of a
// LogCapture, which gives it back.
class GateOpenedByAPass {
  public:
    explicit GateOpenedByAPass(WriteGate& gate) : m_gate(gate) { K9SysSetLogSink(&See, this); }
    u32 Passes() const { return m_passes; }

  private:
    static void K9SYS_CALL See(K9SysLogLevel /*level*/, const char* /*module*/, const char* text,
                               std::uint32_t /*code*/, void* self) {
        auto& opener = *static_cast<GateOpenedByAPass*>(self);
        if (std::string_view(text).starts_with("Squeeze enum; ")) {
            ++opener.m_passes;
            opener.m_gate.Open();
        }
    }

    WriteGate& m_gate;
    std::atomic<u32> m_passes{0};
};

}  // namespace

// The clear revision lies in a gap behind a block that is only in the file; the record behind the
// gap is queued when the first pass looks for it.
TEST_F(AsyncClear, ThatFindsNoKeptRecordLetsTheWriterFinishAndLooksAgain) {
    ClearableStorage storage(AsyncKeeping(1));
    storage.Put(2);
    storage.Settle();
    ShutGate();
    storage.PutAt(10);
    ASSERT_EQ(BlocksInMemory(storage), 1U);
    {
        const LogCapture levels;
        const GateOpenedByAPass opener(m_gate);
        EXPECT_EQ(storage.Clear(5, kLogical), RC_OK);
        EXPECT_EQ(opener.Passes(), 2U);
    }
    EXPECT_EQ(RevsOf(storage.Records()), Revs({10}));
    EXPECT_EQ(storage.OldestRev(), 5);
    storage.Reopen();
    EXPECT_EQ(RevsOf(storage.Records()), Revs({10}));
}

TEST_F(AsyncClear, ThatFindsNoKeptRecordInTheEndClearsEverything) {
    ClearableStorage storage(AsyncKeeping(1));
    storage.Put(4);
    storage.UseUp();
    ShutGate();
    WhileTheGateOpens([&] { storage.ClearTo(5, kLogical); });
    EXPECT_EQ(FileItems(storage), Strings({"c5"}));
    storage.ExpectContentForLife();
}

}  // namespace k9erepl::test
