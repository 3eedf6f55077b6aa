// A process that appends is killed at any moment, fifty times: whatever OnFlush, or OnWriteToFile
// of the asynchronous writer, acknowledged is there afterwards, byte for byte, no part of a
// transaction is served, and revisions go on.
//
// The schedule follows from one seed, which is printed; K9EREPL_TEST_SEED sets another one.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <cstdlib>
#include <iostream>
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

// Reads the next revision that the child acknowledged; false when none came in time.
bool ReadAcknowledgement(ChildProcess& child, int timeoutMs, i64* rev) {
    std::string text(kAcknowledgementSize, '\0');
    if (child.Read(text.data(), text.size(), timeoutMs) != text.size()) {
        return false;
    }
    *rev = std::stoll(text);
    return true;
}

// Lets the child run until a planned moment and kills it. Returns the last acknowledged revision,
// `lastKnown` when there was none.
i64 RunAndKill(const ChildOptions& options, Random& random, i64 lastKnown) {
    ChildProcess child(options);
    i64 acknowledged = lastKnown;
    for (u32 left = random.Below(40); left > 0; --left) {
        EXPECT_TRUE(ReadAcknowledgement(child, 60000, &acknowledged));
    }
    // A little further, into the middle of whatever it does then.
    const int extraMs = static_cast<int>(random.Below(8));
    while (extraMs > 0 && ReadAcknowledgement(child, extraMs, &acknowledged) &&
           random.Below(4) != 0) {
    }
    child.Kill();
    EXPECT_EQ(child.Wait(), (ChildEnd{0, kKillSignal}));
    while (ReadAcknowledgement(child, 0, &acknowledged)) {  // before the end, read after it
    }
    return acknowledged;
}

// Compares the records of an enumeration with the plan, one transaction after the other.
class PlanReader {
  public:
    explicit PlanReader(u64 seed) : m_seed(seed), m_left(PlanRecordCount(seed, 1)) {}

    // Returns 0, or 1 at the first record that is not as planned.
    static u32 K9EREPL_CALL OnRecord(const K9eReplRec* record, void* context) {
        return static_cast<PlanReader*>(context)->Take(*record) ? 0 : 1;
    }

    i64 LastRev() const { return m_lastRev; }
    bool EndsWithATransaction() const { return m_ended; }

  private:
    bool Take(const K9eReplRec& record) {
        const PlannedRecord planned = PlanRecord(m_seed, ++m_lastRev);
        if (record.rev != m_lastRev || record.userWord != planned.userWord ||
            std::string(record.data, record.data + record.dataSize) != planned.data) {
            ADD_FAILURE() << "revision " << record.rev << " is not what was appended as revision "
                          << m_lastRev;
            return false;
        }
        m_ended = --m_left == 0;
        m_left = m_ended ? PlanRecordCount(m_seed, m_lastRev + 1) : m_left;
        return true;
    }

    const u64 m_seed;
    i64 m_lastRev = 0;
    u32 m_left;  // of the transaction, behind the last record
    bool m_ended = true;
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
    EXPECT_EQ(
        K9eReplStorageEnumRecords(storage, 1, model::kHighestRev, &PlanReader::OnRecord, &reader),
        RC_OK);
    EXPECT_GE(reader.LastRev(), acknowledged) << "an acknowledged record is lost";
    EXPECT_TRUE(reader.EndsWithATransaction()) << "a part of a transaction is served";
    i64 nextRev = 0;
    EXPECT_EQ(K9eReplStorageGetNextRev(storage, &nextRev), RC_OK);
    EXPECT_EQ(nextRev, reader.LastRev() + 1);
    EXPECT_EQ(K9eReplStorageClose(storage), RC_OK);
    return reader.LastRev();
}

// OnFlush acknowledges, or OnWriteToFile of the asynchronous writer.
void KillAgainAndAgain(bool async) {
    const u64 seed = Seed();
    std::cout << "seed " << seed << ", as K9EREPL_TEST_SEED sets it\n";
    TempFolder folder;
    Random random(seed);
    i64 last = 0;
    for (u32 round = 0; round < kRounds && !::testing::Test::HasFailure(); ++round) {
        const u32 storage = round / kRoundsPerStorage;
        const u64 storageSeed = seed + storage;
        const std::string conn = "file=" + folder.File("storage" + std::to_string(storage)) +
                                 ".edb;" + PlanSettings(seed, round, async);
        SCOPED_TRACE("round " + std::to_string(round) + ", " + conn);
        last = round % kRoundsPerStorage == 0 ? 0 : last;
        const ChildOptions options = {.arguments = {CRASH_WRITER_PROGRAM, conn,
                                                    std::to_string(storageSeed),
                                                    async ? "OnWriteToFile" : "OnFlush"}};
        last = ReopenAndCompare(conn, storageSeed, RunAndKill(options, random, last));
    }
}

TEST(Kill, LosesNothingThatWasAcknowledgedAndServesNoPartOfATransaction) {
    KillAgainAndAgain(false);
}

TEST(Kill, LosesNothingThatTheWritingThreadAcknowledged) {
    KillAgainAndAgain(true);
}

}  // namespace

}  // namespace k9erepl::test
