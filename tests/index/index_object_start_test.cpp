// Making the index object and starting its thread, with every failure of it.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>
#include <k9sys/k9sys.h>

#include <atomic>

#include "index/index_fixture.h"
#include "support/fixed_log.h"
#include "support/new_fault.h"
#include "support/storage_exception.h"

namespace k9erepl::test {
namespace {

constexpr const char* kCannotBegin = "Couldn't begin thread: K9ThreadCreate failed; sysErr ";

class IndexObjectStart : public IndexObjectTest {
  protected:
    u32 CodeOfMaking(const std::string& connStr) {
        try {
            const IndexObject index(connStr.c_str(), m_storage, kBlockSize, kNoIdle);
            return RC_OK;
        } catch (const K9eStorageException& failure) {
            return failure.Code();
        }
    }
    // That Start fails with a message and its code, and that another Start then succeeds.
    void ExpectStartFails(const std::string& text, u32 code) {
        EXPECT_EQ(m_index->Start(), code);
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
        EXPECT_EQ(m_log.CodeOf(text), code);
        EXPECT_TRUE(m_index->IsFinished());
        EXPECT_FALSE(m_index->IsBusy());
        EXPECT_EQ(m_index->Start(), RC_OK);
        m_blocks.AddMany(2);
        EXPECT_EQ(SaveSync(), RC_OK);
        EXPECT_EQ(EntriesOf(FileBytes()), m_blocks.All());
    }
};

TEST_F(IndexObjectStart, TellsWhichFileItUses) {
    Make();
    EXPECT_EQ(m_index->Path(), Path());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Using index file '" + Path() + "'")) << m_log;
    EXPECT_EQ(m_log.Messages().front().module, "k9eRepl-storage-idx");
    EXPECT_TRUE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_FALSE(Exists(Path()));
}

TEST_F(IndexObjectStart, RefusesAStorageWithoutIndexFile) {
    EXPECT_EQ(CodeOfMaking("file=:memory:"), RC_INVALID_ARG);
    EXPECT_EQ(CodeOfMaking(""), RC_INVALID_ARG);
}

TEST_F(IndexObjectStart, IsNotMadeWithoutMemoryForItsImage) {
    FailAlloc(1);
    EXPECT_EQ(CodeOfMaking("file=data.edb"), RC_NO_MEMORY);
}

TEST_F(IndexObjectStart, IsNotMadeWithoutMemory) {
    const FixedLog log;
    for (u32 nth = 1;; ++nth) {
        const FailNthNew fault(nth);
        try {
            const IndexObject index("file=/tmp/long/enough/to/be/allocated.edb", m_storage,
                                    kBlockSize, kNoIdle);
            EXPECT_FALSE(fault.Struck());
            break;
        } catch (const std::bad_alloc&) {
            EXPECT_TRUE(fault.Struck());
        }
    }
}

TEST_F(IndexObjectStart, MakesTheFileWithoutEntriesAndStartsTheThread) {
    WriteBytes(Path(), IndexFileBytes({{1, 1056}}));
    MakeStarted();
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Starting thread")) << m_log;
    EXPECT_EQ(m_log.CountContaining("Thread started; TID "), 1U);
}

TEST_F(IndexObjectStart, SaysWhenTheDirectoryCannotBeMade) {
    Make(kNoIdle, ";index_file=" + m_folder.File("a/b"));
    Fail(SystemCall::kMakeDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_EQ(m_index->Start(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("Couldn't create directory for '" + m_folder.File("a/b") + "'; sysErr " +
                           SysErr(SystemErrorKind::kAccessDenied)),
              RC_SYSTEM_ERROR)
        << m_log;
    EXPECT_TRUE(m_index->IsFinished());
    StopFailing(SystemCall::kMakeDirectory);
    EXPECT_EQ(m_index->Start(), RC_OK);
    EXPECT_TRUE(Exists(m_folder.File("a/b")));
}

TEST_F(IndexObjectStart, SaysWhenTheFileCannotBeOpened) {
    Make();
    FailOpen(1);
    ExpectStartFails(
        "Couldn't open file '" + Path() + "'; sysErr " + SysErr(SystemErrorKind::kAccessDenied),
        RC_SYSTEM_ERROR);
}

TEST_F(IndexObjectStart, SaysWhenTheHeaderCannotBeWritten) {
    Make();
    FailWrite(1);
    ExpectStartFails("Couldn't write file header;file '" + Path() + "'; sysErr " +
                         SysErr(SystemErrorKind::kNoSpace),
                     RC_SYSTEM_ERROR);
}

TEST_F(IndexObjectStart, SaysWhenThereIsNoParserMemory) {
    Make();
    const std::size_t used = K9SysParserMemInUse();
    K9SysSetParserMemLimit(used);
    EXPECT_EQ(m_index->Start(), RC_NO_MEMORY);
    K9SysSetParserMemLimit(SIZE_MAX);
    EXPECT_EQ(m_log.CountContaining(kCannotBegin), 1U) << m_log;
    EXPECT_EQ(m_log.Messages().back().code, RC_NO_MEMORY);
    EXPECT_EQ(m_index->Start(), RC_OK);
    EXPECT_GT(K9SysParserMemInUse(), used);
    m_index->Stop();
    EXPECT_EQ(K9SysParserMemInUse(), used);
}

TEST_F(IndexObjectStart, SaysWhenTheThreadCannotBeCreated) {
    Make();
    FailCreateThread(1);
    ExpectStartFails(kCannotBegin + SysErr(SystemErrorKind::kOutOfMemory), RC_SYSTEM_ERROR);
}

TEST_F(IndexObjectStart, EndsTheThreadWhoseAffinityCannotBeSet) {
    Make(kNoIdle, ";aux_affinity=1");
    Fail(SystemCall::kSetAffinity, 1, SystemErrorKind::kAccessDenied);
    ExpectStartFails(kCannotBegin + SysErr(SystemErrorKind::kAccessDenied), RC_SYSTEM_ERROR);
    EXPECT_EQ(CallCount(SystemCall::kTerminateThread), 1U);
    EXPECT_EQ(m_log.CountContaining("Thread started; TID "), 1U);
}

TEST_F(IndexObjectStart, EndsTheThreadThatCannotBeResumed) {
    Make();
    Fail(SystemCall::kResumeThread, 1, SystemErrorKind::kAccessDenied);
    ExpectStartFails(kCannotBegin + SysErr(SystemErrorKind::kAccessDenied), RC_SYSTEM_ERROR);
    EXPECT_EQ(CallCount(SystemCall::kTerminateThread), 1U);
}

TEST_F(IndexObjectStart, LeavesAThreadThatCanNeitherBeResumedNorEnded) {
    MakeUnending();
    EXPECT_EQ(m_index->Start(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Cannot terminate thread; its memory stays allocated")) << m_log;
    EXPECT_TRUE(m_index->IsFinished());
}

TEST_F(IndexObjectStart, SaysWhenTheThreadCannotMakeItsEvent) {
    Make();
    FailCreateEvent(1);
    ExpectStartFails("Index thread is finished unexpectedly", RC_SYSTEM_ERROR);
    const std::string text = "K9EventCreate failed; " + SysErr(SystemErrorKind::kOutOfMemory);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(m_log.CountContaining("Thread finished; TID "), 0U);
}

std::atomic<u64> g_mask{0};

TEST_F(IndexObjectStart, GivesTheThreadItsAffinity) {
    platform::TheSystemCalls().setThreadAffinity = [](void* /*thread*/, u64 mask) {
        g_mask = mask;
        return true;
    };
    MakeStarted(kNoIdle, ";aux_affinity=5");
    EXPECT_EQ(g_mask, 5U);
    MakeStarted(kNoIdle, ";aux_affinity=-1");
    EXPECT_EQ(g_mask, 0xFFFFFFFFU);
}

TEST_F(IndexObjectStart, LeavesTheAffinityAloneWithoutAMask) {
    MakeStarted();
    MakeStarted(kNoIdle, ";aux_affinity=0");
    EXPECT_EQ(CallCount(SystemCall::kSetAffinity), 0U);
}

TEST_F(IndexObjectStart, ReplacesAThreadThatStillRuns) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(m_log.Count("Thread closed"), 1U) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

}  // namespace
}  // namespace k9erepl::test
