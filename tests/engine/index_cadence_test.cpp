// When commits ask for the index to be saved, and what they do about a thread that cannot.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "engine/flush_fixture.h"
#include "platform/system_calls.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Each commit of BlockFull adds a block; every second block asks for a save.
constexpr std::string_view kEverySecondBlock = "block_size=138;index_hint=2;";
constexpr const char* kRequested = "Async idx save requested";

void WaitUntilIdle(TestStorage& storage) {
    while (StorageAccess::Index(storage.Object())->IsBusy()) {
        std::this_thread::yield();
    }
}

// Holds writes of every thread but the one that made it while it is shut.
class WriteGate {
  public:
    WriteGate() {
        s_gate = this;
        platform::TheSystemCalls().writeFile = &WriteGate::Write;
    }
    ~WriteGate() { s_gate = nullptr; }
    WriteGate(const WriteGate&) = delete;
    WriteGate& operator=(const WriteGate&) = delete;

    void Shut() {
        const std::lock_guard guard(m_mutex);
        m_shut = true;
    }
    void Open() {
        {
            const std::lock_guard guard(m_mutex);
            m_shut = false;
        }
        m_changed.notify_all();
    }

  private:
    static i64 Write(platform::NativeFile file, const void* data, u32 size) {
        WriteGate& gate = *s_gate;
        if (std::this_thread::get_id() != gate.m_owner) {
            std::unique_lock guard(gate.m_mutex);
            gate.m_changed.wait(guard, [&] { return !gate.m_shut; });
        }
        return platform::NativeSystemCalls().writeFile(file, data, size);
    }

    static inline WriteGate* s_gate = nullptr;
    const std::thread::id m_owner = std::this_thread::get_id();
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_shut = false;
};

}  // namespace

TEST(IndexCadence, ASaveIsRequestedWhenEnoughBlocksWereAdded) {
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    const LogCapture log({"k9eRepl-storage-idx"});
    for (const std::size_t requests : {0U, 1U, 1U, 2U}) {
        storage.InsertCommitted({BlockFull("block")});
        EXPECT_EQ(log.Count(kRequested), requests);
        WaitUntilIdle(storage);
    }
}

TEST(IndexCadence, ABusyThreadIsLeftAloneUntilTheNextTurn) {
    const ScopedSystemCalls systemCalls;
    WriteGate gate;
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    gate.Shut();
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
    const LogCapture log;
    storage.InsertCommitted({BlockFull("three"), BlockFull("four")});
    EXPECT_TRUE(log.Has(K9SYS_LOG_WARNING, "Index thread is busy")) << log;
    EXPECT_EQ(log.Count(kRequested), 0U);
    gate.Open();
    WaitUntilIdle(storage);
    storage.InsertCommitted({BlockFull("five")});
    EXPECT_EQ(log.Count(kRequested), 0U) << "the count was taken over when it was busy";
    storage.InsertCommitted({BlockFull("six")});
    EXPECT_EQ(log.Count(kRequested), 1U);
}

TEST(IndexCadence, AThreadThatEndedIsStartedAgain) {
    const ScopedSystemCalls systemCalls;
    TestStorage storage(With(kFlushAlways, kEverySecondBlock));
    FailWrite(3, SystemErrorKind::kNoSpace, Repeat::kFromThenOn);  // the flush makes two
    storage.InsertCommitted({BlockFull("one"), BlockFull("two")});
    const LogCapture log;
    while (!StorageAccess::Index(storage.Object())->IsFinished()) {
        std::this_thread::yield();
    }
    StopFailing(SystemCall::kWrite);
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
