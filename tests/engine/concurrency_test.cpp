// Several threads on one handle, and the index thread beside them. Meant for ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "engine/flush_fixture.h"

namespace k9erepl::test {
namespace {

constexpr u32 kInsertions = 200;
constexpr std::string_view kBusy =
    "flush_mode=PerTrans;flush_trans_num=3;flush_timeout=1;block_size=256;cache_type=Last2;"
    "index_hint=1;read_buffers_count=1;";

// Runs the functions at the same time, each on a thread of its own.
void AtOnce(const std::vector<std::function<void()>>& functions) {
    std::vector<std::thread> threads;
    threads.reserve(functions.size());
    for (const auto& function : functions) {
        threads.emplace_back(function);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace

TEST(Concurrency, InsertionsOfSeveralThreadsAreAllKeptInOrder) {
    TestStorage storage(kBusy);
    const auto insert = [&] {
        for (u32 i = 0; i < kInsertions; ++i) {
            ASSERT_EQ(storage.Insert("text"), RC_OK);
        }
    };
    AtOnce({insert, insert, insert});
    storage.Reopen();
    const SeenRecords records = storage.Records();
    ASSERT_EQ(records.size(), 3 * kInsertions);
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].rev, static_cast<i64>(i) + 1);
    }
}

TEST(Concurrency, ReadersSeeWholeStatesWhileOneThreadInserts) {
    TestStorage storage(kBusy);
    std::atomic<bool> done{false};
    const auto insert = [&] {
        for (u32 i = 0; i < kInsertions; ++i) {
            ASSERT_EQ(storage.Insert("text"), RC_OK);
        }
        done = true;
    };
    const auto follow = [&] {
        for (i64 last = 0; !done;) {
            const i64 next = storage.NextRev();
            ASSERT_GE(next, last);
            last = next;
        }
    };
    const auto enumerate = [&] {
        while (!done) {
            const SeenRecords records = storage.Records();
            ASSERT_TRUE(records.empty() || records.back().rev == static_cast<i64>(records.size()));
        }
    };
    const auto query = [&] {
        while (!done) {
            i64 rev = 0;
            ASSERT_EQ(storage.DataSource().GetFirstRev(0, &rev), RC_OK);
            ASSERT_EQ(rev, 1);
            ASSERT_EQ(storage.DataSource().FlushOnIdle(), RC_OK);
        }
    };
    AtOnce({insert, follow, enumerate, query});
    EXPECT_EQ(storage.Records().size(), kInsertions);
}

TEST(Concurrency, DuplicatesMayBeTakenAndGivenBackAnywhere) {
    TestStorage storage(kBusy);
    const auto duplicate = [&] {
        for (u32 i = 0; i < kInsertions; ++i) {
            void* handle = nullptr;
            ASSERT_EQ(K9eReplStorageDuplicateHandle(storage.Handle(), &handle), RC_OK);
            ASSERT_EQ(K9eReplStorageClose(handle), RC_OK);
        }
    };
    AtOnce({duplicate, duplicate});
    EXPECT_EQ(storage.DataSource().AddRef(), 2U);
    EXPECT_EQ(storage.DataSource().Release(), 1U);
}

TEST(Concurrency, TheLastReferenceMayBeGivenBackByAnotherThread) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    std::thread([&] { storage.Close(); }).join();
    EXPECT_EQ(FileItems(storage), Strings({"c0", "r1", "c1"}));
}

TEST(Concurrency, CallbacksOfTheIdleFlushMayInsertWhileTheClientDoes) {
    Notified flushed;
    TestStorage storage("flush_mode=PerTrans;flush_trans_num=2;flush_timeout=1;");
    std::atomic<u32> nested{0};
    flushed.Does([&](i64) {
        if (nested < 20) {
            ASSERT_EQ(storage.Insert("nested"), RC_OK);
            ++nested;
        }
    });
    flushed.SetAsOnFlush(storage);
    for (u32 i = 0; i < kInsertions; ++i) {
        ASSERT_EQ(storage.Insert("text"), RC_OK);
    }
    while (nested < 20) {
        std::this_thread::yield();
    }
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), kInsertions + 20);
}

}  // namespace k9erepl::test
