// Loads that fail: the code and the message of each step, and the storage afterwards: closed,
// empty, and ready for another attempt.
#include <gtest/gtest.h>

#include <cstring>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

// 12 records of one block each, the first three of them cleared by the last commit block, and two
// uncommitted ones.
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
        EXPECT_EQ(StorageAccess::OldestRev(m_storage.Object()), 0);
        EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object()));
        EXPECT_EQ(m_storage.Insert("too early"), RC_WRONG_STATE);
    }
    void ExpectContent() {
        EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(2, 12));
        EXPECT_EQ(m_storage.NextRev(), 13);
        EXPECT_EQ(StorageAccess::OldestRev(m_storage.Object()), 2);
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
    FileBuilder().Header().Zeros(40).Save(m_storage.Path());
    Open();
    ExpectFailure(RC_FILE_CORRUPT, "Begin of file corrupted");
    EXPECT_TRUE(m_log.Has("Expected info not found")) << m_log;
}

TEST_F(LoadFailure, OfAFileThatIsTooShort) {
    FileBuilder().Header().Commit(0, 0).CutTo(1055).Save(m_storage.Path());
    Open();
    ExpectFailure(RC_FILE_CORRUPT, "Begin of file corrupted");
    EXPECT_TRUE(m_log.Has("File too short")) << m_log;
}

TEST_F(LoadFailure, WhenTheFirstCommitBlockCannotBeRead) {
    Open();
    FailRead(1);
    ExpectFailure(RC_FILE_CORRUPT, "Begin of file corrupted");
    ExpectSecondAttemptSucceeds();
}

TEST_F(LoadFailure, WhenTheLoadingPassCannotRead) {
    Open();
    FailRead(3);
    ExpectFailure(RC_SYSTEM_ERROR, "Failed to load solid storage rec");
    ExpectSecondAttemptSucceeds();
}

TEST_F(LoadFailure, WhenAReadEndsBeforeTheFileDoes) {
    Open();
    ShortRead(3, 3);
    ExpectFailure(RC_SHORT_READ, "Failed to load solid storage rec");
    ExpectSecondAttemptSucceeds();
}

TEST_F(LoadFailure, WhenTheLoadingPassFindsNoMemoryForItsBuffer) {
    Open();
    FailAlloc(1, 10'000'000);
    ExpectFailure(RC_NO_MEMORY, "Failed to load solid storage rec");
    ExpectSecondAttemptSucceeds();
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

TEST_F(LoadFailure, WhenTheWritePositionCannotBeSet) {
    Open();
    const u32 before = CallCount(SystemCall::kSeek);
    ASSERT_EQ(m_storage.TryLoad(), RC_OK);
    const u32 seeks = CallCount(SystemCall::kSeek) - before;
    m_storage.Close();
    ASSERT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
    Open();
    u32 found = 0;
    for (u32 nth = 1; nth <= seeks; ++nth) {
        FailSeek(nth);
        found += m_storage.TryLoad() != RC_OK && m_log.CountContaining("Cannot seek to write pos");
        m_log.Clear();
        ASSERT_TRUE(m_storage.State() == StorageState::kClosed) << nth;
    }
    EXPECT_EQ(found, 1U);
}

TEST_F(LoadFailure, WhenTheIndexFileCannotBeMade) {
    Open();
    FailOpen(2);  // the reading of the index file comes first
    const auto denied = platform::SystemErrorOf(platform::SystemErrorKind::kAccessDenied);
    ExpectFailure(RC_SYSTEM_ERROR, "Couldn't open file '" + IndexPath(m_storage) + "'; sysErr " +
                                       std::to_string(denied));
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

// --- Every call that a load makes fails once: the next attempt finds everything.

class LoadFailureOfCall : public LoadFailure, public ::testing::WithParamInterface<SystemCall> {
  protected:
    // Loads with the `nth` call failing; false when there are not so many.
    bool LoadWithFailure(u32 nth) {
        Open();
        const u32 before = CallCount(GetParam());
        Fail(GetParam(), nth);
        const u32 rc = m_storage.TryLoad();
        const bool failed = CallCount(GetParam()) - before >= nth;
        StopFailing(GetParam());
        if (rc != RC_OK) {
            ExpectClosedAndEmpty();
            EXPECT_EQ(m_storage.TryLoad(), RC_OK);
        }
        ExpectContent();
        m_storage.Close();
        return failed;
    }
    // Returns how many calls failed, one in each load.
    u32 FailEachCall(bool withIndex) {
        u32 nth = 0;
        bool failed = true;
        while (failed && !HasFailure()) {
            if (!withIndex) {
                (void)platform::RemoveFile(IndexPath(m_storage));  // dropped: there may be none
            }
            failed = LoadWithFailure(++nth);
        }
        EXPECT_FALSE(HasFailure()) << "call " << nth << '\n' << m_log;
        return nth - 1;
    }
};

TEST_P(LoadFailureOfCall, LeavesNothingBehind) {
    const u32 withoutIndex = FailEachCall(false);
    const u32 withIndex = FailEachCall(true);
    EXPECT_GT(withoutIndex + withIndex, 0U);
    EXPECT_EQ(FileBytes(m_storage), m_file.Bytes());
}

INSTANTIATE_TEST_SUITE_P(Calls, LoadFailureOfCall,
                         ::testing::Values(SystemCall::kOpen, SystemCall::kRead, SystemCall::kWrite,
                                           SystemCall::kSeek, SystemCall::kSetEnd,
                                           SystemCall::kFileSize, SystemCall::kAlloc,
                                           SystemCall::kCreateEvent, SystemCall::kCreateThread,
                                           SystemCall::kResumeThread));

TEST_F(LoadFailure, OfAnyAllocationLeavesNothingBehind) {
    const LogCapture quiet({"no module"});  // collecting messages allocates too
    for (u32 nth = 1;; ++nth) {
        Open();
        bool struck = false;
        u32 rc = RC_OK;
        {
            const FailNthNew fault(nth);
            rc = m_storage.TryLoad();
            struck = fault.Struck();
        }
        if (rc != RC_OK) {
            // A thread or an event that finds no memory is the system's failure.
            EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_SYSTEM_ERROR) << rc;
            ExpectClosedAndEmpty();
            ASSERT_EQ(m_storage.TryLoad(), RC_OK);
        }
        ExpectContent();
        m_storage.Close();
        ASSERT_FALSE(HasFailure()) << "allocation " << nth << '\n' << m_log;
        if (!struck) {
            break;
        }
    }
}

}  // namespace
}  // namespace k9erepl::test
