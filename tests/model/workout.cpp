// The threads' work; see the header.
#include "model/workout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace k9erepl::model {

namespace {

constexpr u32 kClients = 3;
constexpr u32 kReaders = 2;
constexpr u32 kDataMax = 300;
constexpr u32 kEnough = 5;  // a visitor's answer

// A record's user word tells its data.
u32 SizeOf(u32 word) {
    return word % kDataMax;
}

u8 ByteOf(u32 word, u32 place) {
    return static_cast<u8>(word * 31 + place * 7);
}

bool IsWhole(const K9eReplRec& record) {
    const u32 word = record.userWord;
    if (record.dataSize != SizeOf(word)) {
        return false;
    }
    const u8* const data = reinterpret_cast<const u8*>(record.data);
    for (u32 place = 0; place < SizeOf(word); ++place) {
        if (data[place] != ByteOf(word, place)) {
            return false;
        }
    }
    return true;
}

// A walk of a reader or of the comparison.
struct Walk {
    i64 next;
    i64 to;
    u64 left;  // records to take before it has enough
    std::map<i64, u32> seen{};
};

u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
    auto& walk = *static_cast<Walk*>(context);
    const i64 rev = record->rev;
    EXPECT_TRUE(IsWhole(*record)) << rev;
    EXPECT_GE(rev, walk.next);
    EXPECT_LE(rev, walk.to);
    walk.next = rev + 1;
    walk.seen.emplace_hint(walk.seen.end(), rev, u32{record->userWord});
    return --walk.left == 0 ? kEnough : RC_OK;
}

}  // namespace

std::string Workout::ConnString(u32 number) const {
    static constexpr const char* kBuffers[] = {"", "async_buffer_size=0;", "async_buffer_size=1;",
                                               "async_buffer_size=64;"};
    static constexpr const char* kFlushes[] = {"flush_mode=PerTrans;flush_trans_num=1;",
                                               "flush_mode=PerTrans;flush_trans_num=40;",
                                               "flush_mode=PerData;flush_data_size=3000;"};
    static constexpr const char* kCaches[] = {"cache_type=Last1;", "cache_type=Last4;"};
    return "file=" + m_path +
           ";async_mode=yes;block_size=1000;index_hint=1;flush_timeout=1;read_buffers_count=2;" +
           kBuffers[number % 4] + kFlushes[number % 3] + kCaches[number % 2] +
           (number % 5 == 4 ? "file_size_delta=1;" : "");
}

void Workout::Open(const std::string& connString) {
    ASSERT_EQ(K9eReplStorageOpen(connString.c_str(), &m_handle), RC_OK);
    ASSERT_EQ(K9eReplStorageSetOnFlushCallback(m_handle, &OnFlush, this), RC_OK);
    ASSERT_EQ(K9eReplStorageSetOnWriteToFileCallback(m_handle, &OnWritten, this), RC_OK);
    ASSERT_EQ(K9eReplStorageLoad(m_handle), RC_OK);
}

void Workout::Close() {
    EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
    m_handle = nullptr;
    EXPECT_EQ(m_writtenRev, m_flushedRev);
}

void Workout::Round(u32 number, std::chrono::milliseconds time) {
    ASSERT_NO_FATAL_FAILURE(Open(ConnString(number)));
    m_stop = false;
    std::vector<std::thread> threads;
    for (u32 i = 0; i < kClients; ++i) {
        threads.emplace_back([=, this] { WorkAsClient(number * 100 + i); });
    }
    for (u32 i = 0; i < kReaders; ++i) {
        threads.emplace_back([=, this] { WorkAsReader(number * 100 + kClients + i); });
    }
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end && !::testing::Test::HasFailure()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    m_stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    Close();
}

void Workout::Compare() {
    void* storage = nullptr;
    const std::string connString = "file=" + m_path + ";block_size=1000;cache_type=Last2";
    ASSERT_EQ(K9eReplStorageOpen(connString.c_str(), &storage), RC_OK);
    EXPECT_EQ(K9eReplStorageLoad(storage), RC_OK);
    Walk walk{.next = 0, .to = kHighestRev, .left = ~u64{0}};
    EXPECT_EQ(K9eReplStorageEnumRecords(storage, 0, kHighestRev, &OnRecord, &walk), RC_OK);
    EXPECT_EQ(K9eReplStorageClose(storage), RC_OK);
    EXPECT_EQ(walk.seen.size(), m_book.size());
    EXPECT_TRUE(walk.seen == m_book);
}

// --- The threads

void Workout::WorkAsClient(u64 seed) {
    Random random(seed);
    while (!m_stop) {
        if (random.OneIn(400)) {
            Clear(random);
        } else if (random.OneIn(200)) {
            // Waits for the writing thread, with the storage's lock held.
            EXPECT_EQ(K9eReplStorageSetLifenum(m_handle, random.Below(1000)), RC_OK);
        } else if (random.OneIn(2)) {
            Transact(random);
        } else {
            InsertAlone(random);
        }
    }
}

void Workout::WorkAsReader(u64 seed) {
    Random random(seed);
    while (!m_stop) {
        Enumerate(random);
        const i64 written = m_writtenRev;
        i64 nextRev = 0;
        EXPECT_EQ(K9eReplStorageGetNextRev(m_handle, &nextRev), RC_OK);
        EXPECT_GT(nextRev, written);
    }
}

Workout::Entries Workout::Insert(Random& random, u32 count) {
    alignas(u64) u8 bytes[sizeof(K9eReplRec) + kDataMax];
    auto& record = *reinterpret_cast<K9eReplRec*>(bytes);
    Entries entries;
    for (u32 i = 0; i < count; ++i) {
        const u32 word = static_cast<u32>(random.Next());
        record.userWord = word;
        record.dataSize = SizeOf(word);
        for (u32 place = 0; place < SizeOf(word); ++place) {
            record.data[place] = ByteOf(word, place);
        }
        EXPECT_EQ(K9eReplStorageInsert(m_handle, &record), RC_OK);
        entries.emplace_back(record.rev, word);
    }
    return entries;
}

void Workout::InsertAlone(Random& random) {
    const std::shared_lock guard(m_transaction);
    Enter(Insert(random, 1));
}

void Workout::Transact(Random& random) {
    const std::unique_lock guard(m_transaction);
    EXPECT_EQ(K9eReplStorageBeginTransaction(m_handle), RC_OK);
    const Entries entries = Insert(random, random.Below(12));
    if (random.OneIn(4)) {
        EXPECT_EQ(K9eReplStorageRollback(m_handle), RC_OK);
        ++m_rolledBack;
    } else {
        EXPECT_EQ(K9eReplStorageCommit(m_handle), RC_OK);
        Enter(entries);
    }
}

void Workout::Clear(Random& random) {
    const std::unique_lock guard(m_transaction);
    const u32 mode = random.OneOf<u32>({0, 0, 0, 0, 0, 1, 2});
    i64 rev = 0;
    EXPECT_EQ(K9eReplStorageGetNextRev(m_handle, &rev), RC_OK);
    if (random.OneIn(20)) {
        EXPECT_EQ(K9eReplStorageClearAll(m_handle, mode), RC_OK);
    } else {
        // Now and then the kept part is still on its way to the file.
        rev -= random.Below(random.OneIn(3) ? 10 : 2000);
        EXPECT_EQ(K9eReplStorageClearOldRev(m_handle, rev, mode), RC_OK);
    }
    EraseBelow(rev);
    ++m_cleared;
}

void Workout::Enumerate(Random& random) {
    i64 nextRev = 0;
    K9eReplStorageGetNextRev(m_handle, &nextRev);
    const i64 from = nextRev - random.Below(2000);
    const i64 to = random.OneIn(3) ? kHighestRev : from + random.Below(100);
    Walk walk{.next = from, .to = to, .left = 1 + random.Below(50)};
    const u32 rc = K9eReplStorageEnumRecords(m_handle, from, to, &OnRecord, &walk);
    EXPECT_EQ(rc, walk.left == 0 ? kEnough : RC_OK);
    m_enumerated += walk.seen.size();
}

// --- The book

void Workout::Enter(const Entries& entries) {
    const std::lock_guard guard(m_bookLock);
    m_book.insert(entries.begin(), entries.end());
    m_committed += entries.size();
}

void Workout::EraseBelow(i64 rev) {
    const std::lock_guard guard(m_bookLock);
    m_book.erase(m_book.begin(), m_book.lower_bound(rev));
}

// --- What the library tells

void Workout::OnFlush(i64 lastRev, void* workout) {
    auto& self = *static_cast<Workout*>(workout);
    EXPECT_GT(lastRev, self.m_flushedRev);
    self.m_flushedRev = lastRev;
}

void Workout::OnWritten(i64 lastRev, void* workout) {
    auto& self = *static_cast<Workout*>(workout);
    EXPECT_GE(lastRev, self.m_writtenRev);
    self.m_writtenRev = lastRev;
    ++self.m_written;
}

}  // namespace k9erepl::model
