// When commits ask for the index to be saved, and what they do about a thread that cannot.
#include <gtest/gtest.h>

#include <thread>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Each commit of BlockFull adds a block; every second block asks for a save.
constexpr std::string_view kEverySecondBlock = "block_size=138;index_hint=2;";
constexpr const char* kRequested = "Async idx save requested";

}  // namespace

TEST(IndexCadence, ASaveIsRequestedWhenEnoughBlocksWereAdded) {
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    const LogCapture log({"k9eRepl-storage-idx"});
    for (const std::size_t requests : {0U, 1U, 1U, 2U}) {
        storage.InsertCommitted({BlockFull("block")});
        EXPECT_EQ(log.Count(kRequested), requests);
        EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is something to be saved
        WaitUntilIdle(storage);
    }
}

TEST(IndexCadence, ABusyThreadIsLeftAloneUntilTheNextTurn) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is an entry to be saved
    gate.Shut();
    storage.InsertCommitted({BlockFull("two")});
    const LogCapture log;
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_TRUE(log.Has(K9SYS_LOG_WARNING, "Index thread is busy")) << log;
    EXPECT_EQ(log.Count(kRequested), 0U);
    gate.Open();
    WaitUntilIdle(storage);
    storage.InsertCommitted({BlockFull("five")});
    EXPECT_EQ(log.Count(kRequested), 0U) << "the count was taken over when it was busy";
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is something new to be saved
    storage.InsertCommitted({BlockFull("six")});
    EXPECT_EQ(log.Count(kRequested), 1U);
}

TEST(IndexCadence, AThreadThatEndedIsStartedAgain) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate(WriteGate::File::kIndex);
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);  // so that there is an entry to be saved
    gate.Refuse(true);
    storage.InsertCommitted({BlockFull("two")});
    const LogCapture log;
    while (!StorageAccess::Index(storage.Object())->IsFinished()) {
        std::this_thread::yield();
    }
    gate.Refuse(false);
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_TRUE(log.Has(K9SYS_LOG_ERROR, "Index thread is finished; trying to restart")) << log;
    EXPECT_FALSE(StorageAccess::Index(storage.Object())->IsFinished());
    storage.InsertCommitted({BlockFull("five"), BlockFull("six")});
    EXPECT_EQ(log.Count(kRequested), 1U) << log;
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 6U);
}

TEST(IndexCadence, AThreadThatCannotBeStartedFailsNoCommit) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    StorageAccess::Index(storage.Object())->Stop();
    FailCreateThread(1);
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
    EXPECT_TRUE(StorageAccess::Index(storage.Object())->IsFinished());
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 2U);
}

TEST(IndexCadence, NestedCommitsAskForNothing) {
    TestStorage storage(With(kFlushNever, kEverySecondBlock));
    const LogCapture log({"k9eRepl-storage-idx"});
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("one")), RC_OK);
    ASSERT_EQ(storage.Insert(BlockFull("two")), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    EXPECT_TRUE(log.Messages().empty()) << log;
    ASSERT_EQ(storage.Commit(), RC_OK);
}

}  // namespace k9erepl::test
