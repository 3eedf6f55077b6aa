// A storage with commit_barrier: no commit block is ever written while what it commits may not be
// on the disk, whatever writes it, and the file is the same as without the setting.
#include <gtest/gtest.h>

#include <mutex>
#include <set>

#include "engine/flush_fixture.h"
#include "format/storage_file_format.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kForcedEach =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=2147483647;read_buffers_count=1;"
    "block_size=138;cache_type=Last3;force_flush=yes;file_size_delta=1;";

// Which files have bytes that no flush has covered, and how many commit blocks were written while
// their file had some.
struct Watch {
    platform::SystemCalls next;
    std::set<platform::NativeFile> unforced;
    std::set<platform::NativeFile> copies;  // of a squeeze: nobody loads them before their flush
    u32 commitBlocks = 0;
    u32 unsafe = 0;
} g_watch;
std::mutex g_watchGuard;  // the index thread writes its own file meanwhile

bool EndsWithCommitBlock(const void* data, u32 size) {
    return size >= kCommitBlockSize && LoadUnaligned<u32>(static_cast<const u8*>(data) + size -
                                                          kCommitBlockSize) == kCommitSignature;
}

platform::NativeFile WatchOpen(const char* path, const platform::FileOpenRequest& request) {
    const platform::NativeFile file = g_watch.next.openFile(path, request);
    const std::lock_guard guard(g_watchGuard);
    if (std::string_view(path).ends_with(".temporary")) {
        g_watch.copies.insert(file);
    } else {
        g_watch.copies.erase(file);
    }
    return file;
}

i64 WatchWrite(platform::NativeFile file, const void* data, u32 size) {
    {
        const std::lock_guard guard(g_watchGuard);
        if (EndsWithCommitBlock(data, size) && !g_watch.copies.contains(file)) {
            ++g_watch.commitBlocks;
            g_watch.unsafe += size > kCommitBlockSize || g_watch.unforced.contains(file) ? 1 : 0;
        }
        g_watch.unforced.insert(file);
    }
    return g_watch.next.writeFile(file, data, size);
}

bool WatchFlush(platform::NativeFile file) {
    {
        const std::lock_guard guard(g_watchGuard);
        g_watch.unforced.erase(file);
    }
    return g_watch.next.flushFile(file);
}

class BarrierOfAStorage : public ::testing::Test {
  protected:
    // Everything that writes commit blocks: flushes of one block, of several, and of a part of one;
    // a flush that failed; clears in every mode; a reopening.
    static std::vector<u8> Live(std::string_view more) {
        SetTimeStampCounter(1000, 1);
        TestStorage storage(With(kForcedEach, more));
        storage.InsertMany(5);
        EXPECT_EQ(storage.Begin(), RC_OK);
        for (const char* text : {"six", "seven", "eight"}) {
            EXPECT_EQ(storage.Insert(BlockFull(text)), RC_OK);
        }
        EXPECT_EQ(storage.Commit(), RC_OK);
        EXPECT_EQ(storage.Clear(3, 0), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.Clear(4, 1), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.Clear(6, 2), RC_OK);
        storage.Reopen();
        EXPECT_EQ(storage.Clear(7, 0), RC_OK);
        storage.InsertMany(2);
        EXPECT_EQ(storage.ClearAll(0), RC_OK);
        storage.InsertMany(3);
        return FileBytes(storage);
    }

    void StartWatching() {
        g_watch = Watch{.next = platform::NativeSystemCalls(), .unforced = {}, .copies = {}};
        platform::TheSystemCalls().openFile = WatchOpen;
        platform::TheSystemCalls().writeFile = WatchWrite;
        platform::TheSystemCalls().flushFile = WatchFlush;
    }

    const ScopedSystemCalls m_systemCalls;
};

TEST_F(BarrierOfAStorage, NoCommitBlockIsWrittenBeforeWhatItCommitsIsOnTheDisk) {
    SKIP_WHEN_ASYNC("the asynchronous writer forces only when it stops");
    StartWatching();
    Live("commit_barrier=yes;");
    EXPECT_EQ(g_watch.unsafe, 0U);
    EXPECT_GT(g_watch.commitBlocks, 15U);
    StartWatching();
    Live("");
    EXPECT_GT(g_watch.unsafe, 10U) << "the test sees what it is about";
}

TEST_F(BarrierOfAStorage, TheFileIsTheSameAsWithoutIt) {
    const std::vector<u8> with = Live("commit_barrier=yes;");
    EXPECT_EQ(with, Live("commit_barrier=no;"));
    EXPECT_EQ(with, Live(""));
}

TEST_F(BarrierOfAStorage, CostsTheAsynchronousWriterNothing) {
    std::vector<u32> flushes;
    for (const char* setting : {"async_mode=yes;commit_barrier=yes;", "async_mode=yes;"}) {
        const u32 before = CallCount(SystemCall::kFlush);
        TestStorage storage(With(kForcedEach, setting));
        storage.InsertMany(5);
        storage.Close();
        flushes.push_back(CallCount(SystemCall::kFlush) - before);
    }
    EXPECT_EQ(flushes[0], flushes[1]);
}

TEST_F(BarrierOfAStorage, NothingIsReportedWhenItsFlushFails) {
    SKIP_WHEN_ASYNC("the asynchronous writer forces only when it stops");
    Notified flushed;
    Notified written;
    TestStorage storage(With(kForcedEach, "commit_barrier=yes;"));
    storage.InsertCommitted({"one"});
    flushed.SetAsOnFlush(storage);
    written.SetAsOnWriteToFile(storage);
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    FailFlush(1);
    EXPECT_EQ(storage.Commit(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kFlushFailed);
    EXPECT_EQ(flushed.Calls(), Revs());
    EXPECT_EQ(written.Calls(), Revs());
    EXPECT_EQ(storage.Commit(), RC_OK);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
    EXPECT_EQ(flushed.Calls(), Revs({2}));
    EXPECT_EQ(written.Calls(), Revs({2}));
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1", "r2", "c2"}));
}

}  // namespace
}  // namespace k9erepl::test
