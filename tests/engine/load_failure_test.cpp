// Loads that fail: the code and the message of each step, and the storage afterwards: closed,
// empty, and ready for another attempt.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// 12 records of one block each, the first one cleared by the last commit block, and two uncommitted
// ones.
class LoadFailure : public ::testing::Test {
  protected:
    LoadFailure() {
        m_file.NewFile().Record(1, "small").Record(2, "small too").Commit(0, 2);
        for (i64 rev = 3; rev <= 12; ++rev) {
            m_file.Record(rev, OneBlock(std::to_string(rev))).Commit(0, rev);
        }
        m_file.Commit(2, 12).Record(13, OneBlock("lost")).Record(14, OneBlock("lost")).Zeros(64);
        m_file.Save(m_storage.Path());
    }
    void Open() {
        ASSERT_EQ(m_storage.TryOpen(), RC_OK) << m_log;
        m_log.Clear();
    }
    BlockStore& Blocks() { return StorageAccess::Blocks(m_storage.Object()); }
    void ExpectClosedAndEmpty() {
        EXPECT_EQ(m_storage.State(), StorageState::kClosed);
        EXPECT_TRUE(Blocks().Blocks().empty());
        EXPECT_TRUE(Blocks().Index().empty());
        EXPECT_EQ(m_storage.NextRev(), 1);
        EXPECT_EQ(StorageAccess::FlushedRev(m_storage.Object()), 0);
        EXPECT_EQ(m_storage.OldestRev(), 0);
        EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object()));
        EXPECT_EQ(m_storage.Insert("too early"), RC_WRONG_STATE);
    }
    void ExpectContent() {
        EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(2, 12));
        EXPECT_EQ(m_storage.NextRev(), 13);
        EXPECT_EQ(m_storage.OldestRev(), 2);
        EXPECT_TRUE(StorageAccess::BeginMoved(m_storage.Object()));
    }
    void ExpectFailure(u32 rc, std::string_view text) {
        EXPECT_EQ(m_storage.TryLoad(), rc);
        EXPECT_EQ(m_log.CodeOf(text), rc) << m_log;
        ExpectClosedAndEmpty();
    }
    void ExpectSecondAttemptSucceeds() {
        ASSERT_EQ(m_storage.TryLoad(), RC_OK) << m_log;
        ExpectContent();
    }

    ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    TestStorage m_storage{SmallCache(2, "index_file="), Start::kNothing};
    FileBuilder m_file;
};

TEST_F(LoadFailure, OfAFileWithoutItsFirstCommitBlock) {
    for (const auto& [size, text] :
         {std::pair<i64, const char*>{1055, "File too short"}, {1064, "Expected info not found"}}) {
        FileBuilder().Header().Zeros(40).CutTo(size).Save(m_storage.Path());
        Open();
        ExpectFailure(RC_FILE_CORRUPT, "Begin of file corrupted");
        EXPECT_TRUE(m_log.Has(text)) << m_log;
        m_storage.Close();
    }
}

TEST_F(LoadFailure, OfAStepOfTheLoad) {
    const std::string denied =
        std::to_string(platform::SystemErrorOf(platform::SystemErrorKind::kAccessDenied));
    struct Step {
        std::function<void()> fail;
        u32 rc;
        std::string text;
    };
    const Step steps[] = {
        {[] { FailRead(1); }, RC_FILE_CORRUPT, "Begin of file corrupted"},
        {[] { FailRead(3); }, RC_SYSTEM_ERROR, "Failed to load solid storage rec"},
        {[] { ShortRead(3, 3); }, RC_SHORT_READ, "Failed to load solid storage rec"},
        {[] { FailAlloc(1, 10'000'000); }, RC_NO_MEMORY, "Failed to load solid storage rec"},
        // The reading of the index file comes first.
        {[] { FailOpen(2); }, RC_SYSTEM_ERROR,
         "Couldn't open file '" + IndexPath(m_storage) + "'; sysErr " + denied}};
    for (const Step& step : steps) {
        SCOPED_TRACE(step.text);
        Open();
        step.fail();
        ExpectFailure(step.rc, step.text);
        ExpectSecondAttemptSucceeds();
        m_storage.Close();
        EXPECT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
    }
}

TEST_F(LoadFailure, WhenThereIsNoMemoryForABlock) {
    Open();
    // For the first record, for one of the next ones, for the uncommitted ones.
    for (u32 nth = 1; nth <= 3; ++nth) {
        FailAlloc(nth + 1);  // the scan's buffer comes first
        ExpectFailure(RC_NO_MEMORY, "Failed to alloc next data block");
        EXPECT_EQ(m_log.CountContaining("Failed to insert rec while load;rev "), nth) << m_log;
        EXPECT_EQ(m_log.Count("Failed to load solid storage rec"), nth) << m_log;
    }
    ExpectSecondAttemptSucceeds();
}

TEST_F(LoadFailure, WhenTheIndexThreadCannotBeStarted) {
    Open();
    FailCreateThread(1);
    EXPECT_EQ(m_storage.TryLoad(), RC_SYSTEM_ERROR);
    ExpectClosedAndEmpty();
    ExpectSecondAttemptSucceeds();
}

TEST_F(LoadFailure, WhenTheIndexCannotBeSaved) {
    Open();
    FailWrite(2);  // the empty header succeeds
    EXPECT_EQ(m_storage.TryLoad(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Couldn't write file '"), 1U) << m_log;
    ExpectClosedAndEmpty();
    EXPECT_TRUE(StorageAccess::Index(m_storage.Object())->IsFinished());
    ExpectSecondAttemptSucceeds();
}

// The memory blocks that were allocated, so that a test can damage one in the middle of a load.
std::vector<K9eReplBlock*> g_remembered;

void* RememberBlocks(std::size_t size) {
    void* const memory = platform::NativeSystemCalls().allocMemory(size);
    if (size == kMinBlockSize + kBlockOverhead) {
        g_remembered.push_back(static_cast<K9eReplBlock*>(memory));
    }
    return memory;
}

void K9SYS_CALL DamageBlocksBeforeTheCut(K9SysLogLevel /*level*/, const char* /*module*/,
                                         const char* text, std::uint32_t code, void* context) {
    if (std::strstr(text, "Trailing uncommitted data") != nullptr) {
        for (K9eReplBlock* block : g_remembered) {
            block->Data()[0] ^= 1U;
        }
    }
    if (std::strstr(text, "Failed to enum recs from") != nullptr) {
        *static_cast<std::pair<std::string, u32>*>(context) = {text, code};
    }
}

TEST_F(LoadFailure, WhenTheMemoryCannotBeCutBackToTheFlushedRevision) {
    m_storage.Use(std::string(kEachCommit) + "cache_type=AllInMem;memory_reserve=100");
    g_remembered.clear();
    platform::TheSystemCalls().allocMemory = RememberBlocks;
    Open();
    std::pair<std::string, u32> seen;
    K9SysSetLogSink(DamageBlocksBeforeTheCut, &seen);
    EXPECT_EQ(m_storage.TryLoad(), RC_BAD_DATA);
    const LogCapture quiet;  // takes the place of the sink
    EXPECT_EQ(seen.first, "Failed to enum recs from 12 to 12");
    EXPECT_EQ(seen.second, RC_BAD_DATA);
    ExpectClosedAndEmpty();
    ExpectSecondAttemptSucceeds();
}

// Every call of a load fails once, with and without an index: the next attempt finds everything.
TEST_F(LoadFailure, OfAnyCallLeavesNothingBehind) {
    for (const SystemCall call : {SystemCall::kOpen, SystemCall::kRead, SystemCall::kWrite,
                                  SystemCall::kSeek, SystemCall::kFileSize, SystemCall::kAlloc,
                                  SystemCall::kCreateEvent, SystemCall::kResumeThread}) {
        u32 failed = 0;
        u32 writePositions = 0;
        bool struck = true;
        for (u32 nth = 1; struck && !HasFailure(); ++nth) {
            struck = false;
            for (const bool withIndex : {false, true}) {
                SCOPED_TRACE(nth);
                if (!withIndex) {
                    // dropped: there may be none
                    (void)platform::RemoveFile(IndexPath(m_storage));
                }
                Open();
                const u32 before = CallCount(call);
                Fail(call, nth);
                const u32 rc = m_storage.TryLoad();
                const bool strikes = CallCount(call) - before >= nth;
                struck = struck || strikes;
                failed += strikes ? 1 : 0;
                StopFailing(call);
                if (rc != RC_OK) {
                    writePositions += m_log.CountContaining("Cannot seek to write pos") > 0 ? 1 : 0;
                    ExpectClosedAndEmpty();
                    EXPECT_EQ(m_storage.TryLoad(), RC_OK);
                }
                ExpectContent();
                m_storage.Close();
            }
        }
        EXPECT_GT(failed, 0U) << static_cast<int>(call);
        EXPECT_EQ(writePositions > 0, call == SystemCall::kSeek);
    }
    EXPECT_EQ(FileBytes(m_storage), m_file.Bytes());
}

}  // namespace
}  // namespace k9erepl::test
