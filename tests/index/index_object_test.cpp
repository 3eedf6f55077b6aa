// The index object: making it and starting its thread, with every failure of it; saving the block
// index, by the caller and by the thread; taking all entries out of the file, before what they
// describe changes.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>
#include <k9sys/k9sys.h>

#include <atomic>
#include <thread>

#include "index/index_fixture.h"
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

TEST_F(IndexObjectStart, TellsWhichFileItUsesMakesItWithoutEntriesAndStartsTheThread) {
    WriteBytes(Path(), IndexFileBytes({{1, 1056}}));
    Make();
    EXPECT_EQ(m_index->Path(), Path());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Using index file '" + Path() + "'")) << m_log;
    EXPECT_EQ(m_log.Messages().front().module, "k9eRepl-storage-idx");
    EXPECT_TRUE(m_index->IsFinished());
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Starting thread")) << m_log;
    EXPECT_EQ(m_log.CountContaining("Thread started; TID "), 1U);
}

TEST_F(IndexObjectStart, RefusesAStorageWithoutIndexFileOrMemoryForItsImage) {
    EXPECT_EQ(CodeOfMaking("file=:memory:"), RC_INVALID_ARG);
    EXPECT_EQ(CodeOfMaking(""), RC_INVALID_ARG);
    FailAlloc(1);
    EXPECT_EQ(CodeOfMaking("file=data.edb"), RC_NO_MEMORY);
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

TEST_F(IndexObjectStart, SaysWhatFailsAndSucceedsAfterwards) {
    const std::string denied = SysErr(SystemErrorKind::kAccessDenied);
    const struct {
        SystemCall call;
        std::string text;
        u32 terminated = 0;  // threads that are ended
    } faults[] = {
        {SystemCall::kOpen, "Couldn't open file '" + Path() + "'; sysErr " + denied},
        {SystemCall::kWrite, "Couldn't write file header;file '" + Path() + "'; sysErr " + denied},
        {SystemCall::kCreateThread, kCannotBegin + denied},
        {SystemCall::kSetAffinity, kCannotBegin + denied, 1},
        {SystemCall::kResumeThread, kCannotBegin + denied, 1},
        {SystemCall::kCreateEvent, "Index thread is finished unexpectedly"}};
    for (const auto& fault : faults) {
        Make(kNoIdle, ";aux_affinity=1");
        m_log.Clear();
        const u32 terminated = CallCount(SystemCall::kTerminateThread);
        Fail(fault.call, 1, SystemErrorKind::kAccessDenied);
        ExpectStartFails(fault.text, RC_SYSTEM_ERROR);
        EXPECT_EQ(CallCount(SystemCall::kTerminateThread), terminated + fault.terminated);
        if (fault.call == SystemCall::kCreateEvent) {
            EXPECT_EQ(m_log.CodeOf("K9EventCreate failed; " + denied), RC_SYSTEM_ERROR) << m_log;
        } else {
            EXPECT_EQ(m_log.CountContaining("Thread started; TID "), 1U);
        }
    }
}

TEST_F(IndexObjectStart, LeavesAThreadThatCanNeitherBeResumedNorEnded) {
    MakeUnending();
    EXPECT_EQ(m_index->Start(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Cannot terminate thread; its memory stays allocated")) << m_log;
    EXPECT_TRUE(m_index->IsFinished());
}

std::atomic<u64> g_mask{0};

TEST_F(IndexObjectStart, GivesTheThreadItsAffinityIfThereIsOne) {
    MakeStarted();
    MakeStarted(kNoIdle, ";aux_affinity=0");
    EXPECT_EQ(CallCount(SystemCall::kSetAffinity), 0U);
    platform::TheSystemCalls().setThreadAffinity = [](void* /*thread*/, u64 mask) {
        g_mask = mask;
        return true;
    };
    MakeStarted(kNoIdle, ";aux_affinity=5");
    EXPECT_EQ(g_mask, 5U);
    MakeStarted(kNoIdle, ";aux_affinity=-1");
    EXPECT_EQ(g_mask, 0xFFFFFFFFU);
}

TEST_F(IndexObjectStart, ReplacesAThreadThatStillRuns) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(m_log.Count("Thread closed"), 1U) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
}

using IndexObjectSave = IndexObjectTest;

TEST_F(IndexObjectSave, WritesBeforeASynchronousSaveReturnsAndByTheThreadElse) {
    Make();
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR) << "before the start";
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_FALSE(m_index->IsBusy());
    MakeStarted();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    m_log.Clear();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Sync idx save requested")) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "File rewritten (80 bytes)"));
    EXPECT_FALSE(m_index->IsBusy());
    m_blocks.AddMany(4);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Async idx save requested")) << m_log;
    EXPECT_TRUE(m_log.Has("File updated (80 bytes)")) << m_log;
    EXPECT_FALSE(m_index->IsFinished());
    m_log.Clear();
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_TRUE(m_log.Messages().empty()) << "nothing has changed";
}

TEST_F(IndexObjectSave, ReturnsTheFailureOfASynchronousSaveAndThenWritesEverything) {
    MakeStarted();
    m_blocks.AddMany(3);
    FailWrite(1);
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    const std::string text =
        "Couldn't write file '" + Path() + "' (full); sysErr " + SysErr(SystemErrorKind::kNoSpace);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR) << m_log;
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.AddMany(1);
    FailWrite(2);
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(SaveSync(), RC_OK);
    EXPECT_TRUE(m_log.Has("File rewritten (96 bytes)")) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, EndsTheThreadWhenItsWriteFailsAndBeginsWithAFullWriteAfterARestart) {
    MakeStarted();
    m_blocks.AddMany(3);
    EXPECT_EQ(SaveSync(), RC_OK);
    m_blocks.AddMany(1);
    FailWrite(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    ASSERT_TRUE(WaitFor([this] { return m_index->IsFinished(); }));
    WaitForThread();
    EXPECT_EQ(m_log.CountContaining("' (tail); sysErr "), 1U) << m_log;
    EXPECT_EQ(m_log.CountContaining(";exit code 0x4"), 1U) << m_log;
    EXPECT_EQ(SaveAsync(), RC_OK);
    EXPECT_FALSE(m_index->IsBusy());
    EXPECT_EQ(SaveSync(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("' (full); sysErr "), 1U) << m_log;
    m_index->StartOver();
    EXPECT_FALSE(m_index->IsBusy());
    m_index->Stop();
    ASSERT_EQ(m_index->Start(), RC_OK);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_TRUE(m_log.Has("File rewritten (96 bytes)")) << m_log;
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, MakesUpForAFailedWakeUpAtTheNextTimeOut) {
    MakeStarted(1);
    m_blocks.AddMany(3);
    FailSetEvent(1);
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

TEST_F(IndexObjectSave, WaitsForTheThreadsWriteBeforeTheNextSaveAndBeforeItEmptiesTheFile) {
    GateForWrites::Install();
    Blocks more;
    more.AddMany(5);
    for (const bool empties : {false, true}) {
        MakeStarted();
        GateForWrites::Shut();
        m_blocks.Clear();
        m_blocks.AddMany(3);
        m_log.Clear();
        EXPECT_EQ(SaveAsync(), RC_OK);
        ASSERT_TRUE(WaitFor(GateForWrites::IsReached));
        EXPECT_TRUE(m_index->IsBusy());
        std::atomic<bool> returned{false};
        std::thread requester([&] {
            EXPECT_EQ(empties ? m_index->Empty()
                              : m_index->RequestSave(more.Index(), IndexSaveMode::kSync),
                      RC_OK);
            returned = true;
        });
        for (u32 i = 0; i < 1000; ++i) {
            std::this_thread::yield();
        }
        EXPECT_FALSE(returned);
        EXPECT_FALSE(m_log.Has("Sync idx save requested")) << m_log;
        GateForWrites::Open();
        requester.join();
        EXPECT_EQ(FileBytes(), IndexFileBytes(empties ? Entries{} : more.All()));
        EXPECT_TRUE(m_log.Has(empties ? "File rewritten (32 bytes)" : "File updated (48 bytes)"));
    }
}

class IndexObjectEmpty : public IndexObjectTest {
  protected:
    void SaveThree() {
        MakeStarted();
        m_blocks.AddMany(3);
        ASSERT_EQ(SaveSync(), RC_OK);
        m_log.Clear();
    }
};

TEST_F(IndexObjectEmpty, LeavesAHeaderWithoutEntriesOnTheDisk) {
    SaveThree();
    for (u32 times = 1; times <= 2; ++times) {
        const u32 writes = CallCount(SystemCall::kWrite);
        const u32 flushes = CallCount(SystemCall::kFlush);
        EXPECT_EQ(m_index->Empty(), RC_OK);
        EXPECT_EQ(CallCount(SystemCall::kWrite), writes + 1);
        EXPECT_EQ(CallCount(SystemCall::kFlush), flushes + 1);
        EXPECT_EQ(FileBytes(), IndexFileBytes({}));
        EXPECT_EQ(m_log.Texts(), std::vector<std::string>(times, "File rewritten (32 bytes)"));
        EXPECT_FALSE(m_index->IsBusy());
        EXPECT_FALSE(m_index->IsFinished());
    }
}

TEST_F(IndexObjectEmpty, StartsAThreadThatHasFinished) {
    SaveThree();
    m_index->Stop();
    ASSERT_TRUE(m_index->IsFinished());
    EXPECT_EQ(m_index->Empty(), RC_OK);
    EXPECT_FALSE(m_index->IsFinished());
    EXPECT_EQ(FileBytes(), IndexFileBytes({}));
    EXPECT_EQ(SaveAsync(), RC_OK);
    WaitForThread();
    EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
}

// Whoever comes first: the thread that closes the file, or the one that empties it.
TEST_F(IndexObjectEmpty, SucceedsWhileTheSaveBeforeItFails) {
    MakeStarted();
    for (int round = 0; round < 30; ++round) {
        m_blocks.AddMany(1);
        FailWrite(1);
        ASSERT_EQ(SaveAsync(), RC_OK);
        ASSERT_EQ(m_index->Empty(), RC_OK) << m_log;
        ASSERT_EQ(FileBytes(), IndexFileBytes({}));
        m_index->Stop();
        ASSERT_EQ(m_index->Start(), RC_OK);
    }
}

TEST_F(IndexObjectEmpty, AnswersThatNoThreadCanBeStarted) {
    SaveThree();
    m_index->Stop();
    FailCreateThread(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_index->IsFinished());
    FailOpen(1);
    EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_index->Empty(), RC_OK);
}

TEST_F(IndexObjectEmpty, AnswersWhatFails) {
    const struct {
        SystemCall call;
        const char* part;
        bool emptied;
    } faults[] = {{SystemCall::kWrite, "full", false},
                  {SystemCall::kSetEnd, "full", false},
                  {SystemCall::kFlush, "flush", true}};
    for (const auto& fault : faults) {
        m_blocks.Clear();
        SaveThree();
        Fail(fault.call, 1);
        EXPECT_EQ(m_index->Empty(), RC_SYSTEM_ERROR);
        EXPECT_EQ(m_log.CodeOf("Couldn't write file '" + Path() + "' (" + fault.part +
                               "); sysErr " + SysErr(SystemErrorKind::kInputOutput)),
                  RC_SYSTEM_ERROR)
            << m_log;
        EXPECT_FALSE(m_index->IsFinished());
        EXPECT_FALSE(m_index->IsBusy());
        if (fault.emptied) {
            EXPECT_EQ(FileBytes(), IndexFileBytes({}));
        }
        EXPECT_EQ(SaveSync(), RC_OK);
        EXPECT_EQ(FileBytes(), IndexFileBytes(m_blocks.All()));
        EXPECT_EQ(m_index->Empty(), RC_OK);
    }
}

}  // namespace
}  // namespace k9erepl::test
