// The threads' work; see the header.
#include "model/workout.h"

#include <k9erepl/storage_interfaces.h>

#include <cstring>
#include <utility>

namespace k9erepl::model {

namespace {

constexpr u32 kDataMax = 300;
constexpr u32 kEnough = 5;  // a visitor's answer
constexpr u64 kEndless = ~u64{0};

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
    bool isRight = true;
};

u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
    auto& walk = *static_cast<Walk*>(context);
    const i64 rev = record->rev;
    walk.isRight = walk.isRight && IsWhole(*record) && rev >= walk.next && rev <= walk.to;
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
    return "file=" + m_path + (m_crew.async ? ";async_mode=yes" : "") +
           ";block_size=1000;index_hint=1;flush_timeout=1;read_buffers_count=2;" +
           kBuffers[number % 4] + kFlushes[number % 3] + kCaches[number % 2] +
           (number % 5 == 4 ? "file_size_delta=1;" : "");
}

void Workout::Open(const std::string& connString) {
    ExpectOk(K9eReplStorageOpen(connString.c_str(), &m_handle), "opening");
    ExpectOk(K9eReplStorageSetOnFlushCallback(m_handle, &OnFlush, this), "OnFlush");
    ExpectOk(K9eReplStorageSetOnWriteToFileCallback(m_handle, &OnWritten, this), "OnWriteToFile");
    ExpectOk(K9eReplStorageLoad(m_handle), "loading");
}

void Workout::Close() {
    ExpectOk(K9eReplStorageClose(std::exchange(m_handle, nullptr)), "closing");
    Expect(m_writtenRev == m_flushedRev, "what was flushed is not written after the close");
}

void Workout::Round(u32 number, u32 steps, u64 seed) {
    Open(ConnString(number));
    Start(seed, steps);
    Join();
    Close();
}

void Workout::Start(u64 seed, u64 steps) {
    m_stop = HasProblem();
    // With mingw-w64 a lock of this kind lets two writers in when threads race to use it first.
    { const std::unique_lock guard(m_transaction); }
    const auto add = [&](u32 count, Step step, u64 stepsOfEach) {
        for (; count > 0; --count) {
            m_threads.emplace_back([=, this] { Work(step, stepsOfEach, seed); });
            ++seed;
        }
    };
    // In the order in which they are joined: an idle loop ends with what it is beside.
    add(m_crew.clients, &Workout::StepAsClient, steps);
    add(m_crew.readers, &Workout::StepAsReader, steps);
    add(m_crew.clearers, &Workout::Clear, steps);
    add(m_crew.idlers, &Workout::StepAsIdler, kEndless);
}

void Workout::Join() {
    while (!m_threads.empty()) {
        m_stop = m_stop || m_threads.size() <= m_crew.idlers;
        m_threads.front().join();
        m_threads.erase(m_threads.begin());
    }
}

void Workout::Compare() {
    const Marks marks = CompareOnce(false);
    Expect(CompareOnce(true) == marks, "a second opening shows other revisions");
    CompareOnce(false);
}

Workout::Marks Workout::CompareOnce(bool adds) {
    if (HasProblem()) {
        return {};
    }
    Open("file=" + m_path + ";block_size=1000;cache_type=Last2");
    if (HasProblem()) {
        Close();
        return {};
    }
    Walk walk{.next = 0, .to = kHighestRev, .left = kEndless};
    ExpectOk(K9eReplStorageEnumRecords(m_handle, 0, kHighestRev, &OnRecord, &walk), "enumerating");
    Expect(walk.isRight, "a record is not whole, or out of order");
    Expect(walk.seen == m_book, "the content is not what was committed");
    Marks marks;
    IK9eReplDS* source = nullptr;
    static_cast<IK9eReplStorage*>(m_handle)->GetDS(&source);
    ExpectOk(source->GetFirstRev(0, &marks.firstRev), "GetFirstRev");
    ExpectOk(K9eReplStorageGetNextRev(m_handle, &marks.nextRev), "GetNextRev");
    if (adds) {
        Random random(m_committed);
        InsertAlone(random);
    }
    Close();
    return marks;
}

// --- The threads

void Workout::Work(Step step, u64 steps, u64 seed) {
    Random random(seed);
    for (; steps > 0 && !m_stop; --steps) {
        (this->*step)(random);
    }
}

void Workout::StepAsClient(Random& random) {
    if (random.OneIn(400)) {
        Clear(random);
    } else if (random.OneIn(200)) {
        // Waits for the writing thread, with the storage's lock held.
        ExpectOk(K9eReplStorageSetLifenum(m_handle, random.Below(1000)), "SetLifenum");
    } else if (random.OneIn(2)) {
        Transact(random);
    } else {
        InsertAlone(random);
    }
}

void Workout::StepAsReader(Random& random) {
    Enumerate(random);
    const i64 written = m_writtenRev;
    i64 nextRev = 0;
    ExpectOk(K9eReplStorageGetNextRev(m_handle, &nextRev), "GetNextRev");
    Expect(nextRev > written, "the next revision is not above what is written");
}

void Workout::StepAsIdler(Random& /*random*/) {
    IK9eReplDS* source = nullptr;
    static_cast<IK9eReplStorage*>(m_handle)->GetDS(&source);
    const u32 rc = source->FlushOnIdle();
    // In the middle of a transaction of another thread it does nothing.
    Expect(rc == RC_OK || rc == RC_WRONG_STATE, "FlushOnIdle");
    ++m_idled;
    std::this_thread::yield();
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
        ExpectOk(K9eReplStorageInsert(m_handle, &record), "Insert");
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
    ExpectOk(K9eReplStorageBeginTransaction(m_handle), "BeginTransaction");
    const Entries entries = Insert(random, random.Below(12));
    if (random.OneIn(4)) {
        ExpectOk(K9eReplStorageRollback(m_handle), "Rollback");
        ++m_rolledBack;
    } else {
        ExpectOk(K9eReplStorageCommit(m_handle), "Commit");
        Enter(entries);
    }
}

void Workout::Clear(Random& random) {
    const std::unique_lock guard(m_transaction);
    const u32 mode = random.OneOf<u32>({0, 0, 0, 0, 0, 1, 2});
    i64 rev = 0;
    ExpectOk(K9eReplStorageGetNextRev(m_handle, &rev), "GetNextRev");
    if (random.OneIn(20)) {
        ExpectOk(K9eReplStorageClearAll(m_handle, mode), "ClearAll");
    } else {
        // Now and then the kept part is still on its way to the file.
        rev -= random.Below(random.OneIn(3) ? 10 : 2000);
        ExpectOk(K9eReplStorageClearOldRev(m_handle, rev, mode), "ClearOldRev");
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
    Expect(rc == (walk.left == 0 ? kEnough : RC_OK), "enumerating");
    Expect(walk.isRight, "a record is not whole, or out of order");
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

// --- What is wrong

void Workout::Expect(bool holds, const char* what) {
    if (!holds) {
        Report(what);
    }
}

void Workout::ExpectOk(u32 rc, const char* what) {
    if (rc != RC_OK) {
        Report(what + (" answers " + std::to_string(rc)));
    }
}

void Workout::Report(const std::string& problem) {
    const std::lock_guard guard(m_problemLock);
    m_problem = m_hasProblem ? m_problem : problem;
    m_hasProblem = true;
    m_stop = true;
}

std::string Workout::Problem() const {
    const std::lock_guard guard(m_problemLock);
    return m_problem;
}

// --- What the library tells

void Workout::OnFlush(i64 lastRev, void* workout) {
    auto& self = *static_cast<Workout*>(workout);
    self.Expect(lastRev > self.m_flushedRev, "OnFlush does not rise");
    self.m_flushedRev = lastRev;
}

void Workout::OnWritten(i64 lastRev, void* workout) {
    auto& self = *static_cast<Workout*>(workout);
    self.Expect(lastRev >= self.m_writtenRev, "OnWriteToFile falls");
    self.m_writtenRev = lastRev;
    ++self.m_written;
}

}  // namespace k9erepl::model
