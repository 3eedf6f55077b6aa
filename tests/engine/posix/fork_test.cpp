// A child that was forked from a process with an open storage: nothing of the storage is the
// child's. Every call answers so at once, and closing takes nothing away from the parent. POSIX
// only.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <functional>
#include <thread>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "platform/process.h"

namespace k9erepl::test {
namespace {

constexpr unsigned kChildSeconds = 20;  // a child that waits for longer is killed

// Runs `body` in a forked child and returns what that returns, at most 255; -1 when the child did
// not end by itself. The child ends without destructors, as one that executes a program does.
int InChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(kChildSeconds);
        _exit(body());
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

u32 K9EREPL_CALL NoRecord(const K9eReplRec* /*rec*/, void* /*context*/) {
    return RC_ENUM_STOP;
}

// The codes of every exported function with a handle, but Close.
std::array<u32, 18> AllCalls(void* handle) {
    Record record("child");
    u32 lifenum = 0;
    i64 rev = 0;
    void* out = nullptr;
    return {K9eReplStorageDuplicateHandle(handle, &out),
            K9eReplStorageLoad(handle),
            K9eReplStorageTruncate(handle),
            K9eReplStorageBeginTransaction(handle),
            K9eReplStorageInsert(handle, record.Get()),
            K9eReplStorageInsertP(handle, record.Get()),
            K9eReplStorageCommit(handle),
            K9eReplStorageRollback(handle),
            K9eReplStorageEnumRecords(handle, 1, kEndOfRevs, &NoRecord, nullptr),
            K9eReplStorageGetNextRev(handle, &rev),
            K9eReplStorageSetLifenum(handle, 1),
            K9eReplStorageGetLifenum(handle, &lifenum),
            K9eReplStorageClearOldRev(handle, 1, K9EREPL_CLEAR_LOGICAL),
            K9eReplStorageGetClearOldRev(handle, &rev),
            K9eReplStorageClearAll(handle, K9EREPL_CLEAR_LOGICAL),
            K9eReplStorageSetOnFlushCallback(handle, nullptr, nullptr),
            K9eReplStorageSetOnWriteToFileCallback(handle, nullptr, nullptr),
            K9eReplStorageGetLLStorage(handle, &out)};
}

std::array<u32, 6> DataSourceCalls(IK9eReplDS& source) {
    i64 rev = 0;
    u8 flag = 0;
    return {source.EnumFrom(0, 0, 0, 1, 0, &NoRecord, nullptr),
            source.GetFirstRev(0, &rev),
            source.GetLastRev(0, &rev),
            source.GetClearRev(&rev),
            source.GetFlag(0, &flag),
            source.FlushOnIdle()};
}

// How many calls answer anything but "wrong state".
int OtherAnswers(TestStorage& storage) {
    int count = 0;
    for (const u32 rc : AllCalls(storage.Handle())) {
        count += rc != RC_WRONG_STATE ? 1 : 0;
    }
    for (const u32 rc : DataSourceCalls(storage.DataSource())) {
        count += rc != RC_WRONG_STATE ? 1 : 0;
    }
    return count;
}

int CloseInChild(TestStorage& storage) {
    return InChild([&] { return static_cast<int>(K9eReplStorageClose(storage.Handle())); });
}

auto OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

}  // namespace

TEST(ForkedChild, GetsTheSameAnswerFromEveryCall) {
    TestStorage storage(kFlushAlways);
    storage.InsertMany(3);
    EXPECT_EQ(InChild([&] { return OtherAnswers(storage); }), 0);
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

TEST(ForkedChild, WaitsForNobodyWhileAThreadOfTheParentHoldsTheLock) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(3);
    {
        const LockHolder client(storage);
        EXPECT_EQ(InChild([&] { return OtherAnswers(storage); }), 0);
        EXPECT_EQ(CloseInChild(storage), 0);
    }
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

TEST(ForkedChild, ThatClosesFlushesNothing) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(3);
    EXPECT_EQ(CloseInChild(storage), 0);
    EXPECT_EQ(FileItems(storage), Strings({"c0"}));
    storage.InsertCommitted({"r4"});
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(4));
}

// The parent and the child share the position in the file.
TEST(ForkedChild, ThatClosesLeavesTheParentsWritesInPlace) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last1;"));
    for (u32 round = 1; round <= 5; ++round) {
        ASSERT_EQ(storage.Insert("r" + std::to_string(2 * round - 1)), RC_OK);
        EXPECT_EQ(CloseInChild(storage), 0);
        ASSERT_EQ(storage.Insert("r" + std::to_string(2 * round)), RC_OK);
    }
    EXPECT_EQ(storage.Texts(), Numbered(10));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(10));
}

TEST(ForkedChild, ThatClosesGivesItsDescriptorsBack) {
    TestStorage storage(kFlushAlways);
    storage.InsertMany(3);
    const auto inTheParent = OpenDescriptors();
    const int closed = InChild([&] {
        const auto before = OpenDescriptors();
        K9eReplStorageClose(storage.Handle());
        return static_cast<int>(before - OpenDescriptors());
    });
    storage.Close();
    EXPECT_EQ(closed, inTheParent - OpenDescriptors());
}

TEST(ForkedChild, MayNotScanTheFile) {
    TestStorage storage(kFlushAlways);
    void* out = nullptr;
    ASSERT_EQ(K9eReplStorageGetLLStorage(storage.Handle(), &out), RC_OK);
    auto* const file = static_cast<IK9eReplLLStorage*>(out);
    const auto scan = [file] {
        return file->ScanFile([](u64, const K9eReplRec*, void*) -> u32 { return RC_OK; },
                              [](void*, i64, i64) -> u32 { return RC_OK; }, nullptr);
    };
    EXPECT_EQ(scan(), RC_OK);
    EXPECT_EQ(InChild([&] { return static_cast<int>(scan()); }), static_cast<int>(RC_WRONG_STATE));
}

TEST(ForkedChild, ClosesAsOftenAsTheHandleWasDuplicated) {
    TestStorage storage(kFlushNever);
    void* duplicate = nullptr;
    ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &duplicate), RC_OK);
    const int answers = InChild([&] {
        K9eReplStorageClose(duplicate);
        const int others = OtherAnswers(storage);
        return others + static_cast<int>(K9eReplStorageClose(storage.Handle()));
    });
    EXPECT_EQ(answers, 0);
    EXPECT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    EXPECT_EQ(storage.Insert("the parent's handle stays"), RC_OK);
}

TEST(ForkedChild, OfAStorageThatWasNotLoadedCloses) {
    TestStorage storage("", Start::kOpened);
    EXPECT_EQ(CloseInChild(storage), 0);
    EXPECT_EQ(storage.TryLoad(), RC_OK);
}

#ifdef __SANITIZE_THREAD__
constexpr bool kThreadsAfterFork = false;  // the sanitizer ends a child that starts a thread
#else
constexpr bool kThreadsAfterFork = true;
#endif

TEST(ForkedChild, MayOpenAStorageOfItsOwn) {
    if (!kThreadsAfterFork) {
        GTEST_SKIP() << "no threads in a child under ThreadSanitizer";
    }
    TestStorage parents(kFlushAlways);
    parents.InsertMany(3);
    const TempFolder folder;
    const std::string connStr = "file=" + folder.File("own.eRepl") + ";" + WriterSetting();
    const int failed = InChild([&] {
        Record record("child");
        void* handle = nullptr;
        return K9eReplStorageCreate(connStr.c_str(), 0) != RC_OK ||
               K9eReplStorageOpen(connStr.c_str(), &handle) != RC_OK ||
               K9eReplStorageLoad(handle) != RC_OK ||
               K9eReplStorageInsert(handle, record.Get()) != RC_OK ||
               K9eReplStorageClose(handle) != RC_OK;
    });
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(FileItems(folder.File("own.eRepl")), Strings({"c0", "r1", "c1"}));
}

// Forks at every moment of the parent's own work and of its threads'.
TEST(ForkedChild, TakesNothingFromAParentThatGoesOnInserting) {
    constexpr u32 kChildren = 30;
    TestStorage storage(
        "flush_mode=PerTrans;flush_trans_num=3;flush_timeout=1;block_size=138;index_hint=1;");
    std::atomic<bool> done{false};
    u32 inserted = 0;
    std::thread client([&] {
        while (!done) {
            EXPECT_EQ(storage.Insert("r" + std::to_string(++inserted)), RC_OK);
        }
    });
    for (u32 child = 0; child < kChildren; ++child) {
        EXPECT_EQ(CloseInChild(storage), 0) << child;
    }
    done = true;
    client.join();
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(inserted));
}

// A thread that ends inside a callback, by its host's will, leaves the storage usable.
TEST(ThreadThatEnds, InsideAnEnumerationLeavesTheLockFree) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(3);
    pthread_t thread = {};
    static constexpr auto kEnd = [](const K9eReplRec*, void*) -> u32 { pthread_exit(nullptr); };
    const auto body = [](void* handle) -> void* {
        (void)K9eReplStorageEnumRecords(handle, 1, kEndOfRevs, +kEnd, nullptr);
        return handle;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, +body, storage.Handle()), 0);
    void* result = &storage;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(result, nullptr) << "it did not return";
    EXPECT_EQ(storage.Texts(), Numbered(3));
}

}  // namespace k9erepl::test
