// A process that appends is killed at any moment, fifty times: whatever OnFlush, or OnWriteToFile
// of the asynchronous writer, acknowledged is there afterwards, byte for byte, no part of a
// transaction is served, and revisions go on.
//
// The schedule follows from one seed, which is printed; K9EREPL_TEST_SEED sets another one.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <limits>
#include <string>

#include "crash/crash_plan.h"
#include "support/child_process.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

namespace {

constexpr u32 kRounds = 50;
constexpr u32 kRoundsPerStorage = 10;  // each storage is killed and continued so often

u64 Seed() {
    const char* given = std::getenv("K9EREPL_TEST_SEED");  // NOLINT(concurrency-mt-unsafe)
    return given != nullptr ? std::strtoull(given, nullptr, 10) : 20261121;
}

// Lets the child run until a planned moment and kills it. Returns the last acknowledged revision,
// `lastKnown` when there was none.
i64 RunAndKill(const ChildOptions& options, SeededNumbers& numbers, i64 lastKnown) {
    ChildProcess child(options);
    i64 acknowledged = lastKnown;
    const u32 acknowledgements = numbers.Below(40);
    for (u32 i = 0; i < acknowledgements; ++i) {
        EXPECT_EQ(child.Read(&acknowledged, sizeof acknowledged, 60000), sizeof acknowledged);
    }
    // A little further, into the middle of whatever it does then.
    const int extraMs = static_cast<int>(numbers.Below(8));
    while (extraMs > 0 && child.Read(&acknowledged, sizeof acknowledged, extraMs) != 0 &&
           numbers.Below(4) != 0) {
    }
    child.Kill();
    EXPECT_EQ(child.Wait(), (ChildEnd{0, kKillSignal}));
    i64 last = 0;  // acknowledged before the end, read after it
    while (child.Read(&last, sizeof last, 0) == sizeof last) {
        acknowledged = last;
    }
    return acknowledged;
}

// Compares the records of an enumeration with the plan, one transaction after the other.
class PlanReader {
  public:
    explicit PlanReader(u64 seed) : m_seed(seed), m_transaction(PlanTransaction(seed, 1)) {}

    // Returns 0, or 1 at the first record that is not as planned.
    static u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
        return static_cast<PlanReader*>(context)->Take(*record) ? 0 : 1;
    }

    i64 LastRev() const { return m_transaction.firstRev + m_place - 1; }
    bool EndsWithATransaction() const { return m_place == 0; }

  private:
    bool Take(const K9eReplRec& record) {
        const PlannedRecord planned = PlanRecord(m_seed, m_transaction, m_place);
        if (record.rev != m_transaction.firstRev + m_place || record.userWord != planned.userWord ||
            record.dataSize != planned.data.size() ||
            std::memcmp(record.data, planned.data.data(), planned.data.size()) != 0) {
            ADD_FAILURE() << "revision " << record.rev << " is not what was appended as revision "
                          << m_transaction.firstRev + m_place;
            return false;
        }
        if (++m_place == m_transaction.recordCount) {
            m_transaction =
                PlanTransaction(m_seed, m_transaction.firstRev + m_transaction.recordCount);
            m_place = 0;
        }
        return true;
    }

    u64 m_seed;
    PlannedTransaction m_transaction;  // the one that the next record belongs to
    u32 m_place = 0;                   // of the next record in it
};

// Reopens the storage and compares everything. Returns the last revision that it holds.
i64 ReopenAndCompare(const std::string& conn, u64 seed, i64 acknowledged) {
    void* storage = nullptr;
    if (K9eReplStorageOpen(conn.c_str(), &storage) != RC_OK) {
        ADD_FAILURE() << "the storage does not open";
        return -1;
    }
    EXPECT_EQ(K9eReplStorageLoad(storage), RC_OK);
    PlanReader reader(seed);
    EXPECT_EQ(K9eReplStorageEnumRecords(storage, 1, std::numeric_limits<i64>::max(),
                                        &PlanReader::OnRecord, &reader),
              RC_OK);
    EXPECT_GE(reader.LastRev(), acknowledged) << "an acknowledged record is lost";
    EXPECT_TRUE(reader.EndsWithATransaction()) << "a part of a transaction is served";
    i64 nextRev = 0;
    EXPECT_EQ(K9eReplStorageGetNextRev(storage, &nextRev), RC_OK);
    EXPECT_EQ(nextRev, reader.LastRev() + 1);
    EXPECT_EQ(K9eReplStorageClose(storage), RC_OK);
    return reader.LastRev();
}

// `callback` acknowledges; `writer` tells the settings that a round adds.
void KillAgainAndAgain(const std::string& callback, std::string (*writer)(u64 seed, u32 round)) {
    const u64 seed = Seed();
    std::cout << "seed " << seed << ", as K9EREPL_TEST_SEED sets it\n";
    TempFolder folder;
    SeededNumbers numbers(seed);
    i64 last = 0;
    for (u32 round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
        const u32 storage = round / kRoundsPerStorage;
        const u64 storageSeed = seed + storage;
        const std::string conn = "file=" + folder.File("storage" + std::to_string(storage)) +
                                 ".edb;" + PlanSettings(seed, round) + writer(seed, round);
        SCOPED_TRACE("round " + std::to_string(round) + ", " + conn);
        last = round % kRoundsPerStorage == 0 ? 0 : last;
        const ChildOptions options = {
            .arguments = {CRASH_WRITER_PROGRAM, conn, std::to_string(storageSeed), callback}};
        const i64 acknowledged = RunAndKill(options, numbers, last);
        last = ReopenAndCompare(conn, storageSeed, acknowledged);
    }
}

TEST(Kill, LosesNothingThatWasAcknowledgedAndServesNoPartOfATransaction) {
    KillAgainAndAgain("OnFlush", [](u64, u32) { return std::string(); });
}

TEST(Kill, LosesNothingThatTheWritingThreadAcknowledged) {
    KillAgainAndAgain("OnWriteToFile", &PlanAsyncSettings);
}

}  // namespace

}  // namespace k9erepl::test
