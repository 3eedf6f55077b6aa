// Enumeration from a file that cannot be read or holds something else than what was written: the
// code, the message, and the broken storage.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "engine/load_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// 20 records of one block each, of which memory holds the last: an item of the file is a record
// of 138 bytes or a commit block.
class EnumerationOfADamagedFile : public ::testing::Test {
  protected:
    EnumerationOfADamagedFile() {
        for (u32 n = 1; n <= 20; ++n) {
            EXPECT_EQ(m_storage.Insert(OneBlock(std::to_string(n))), RC_OK);
        }
        m_storage.Settle();
        m_log.Clear();
    }

    static constexpr i64 OffsetOf(i64 rev) { return 1056 + (rev - 1) * (138 + 32); }

    void Patch(i64 offset, u32 word) {
        PatchBytes(m_storage.Path(), offset, {reinterpret_cast<const u8*>(&word), sizeof word});
    }
    // The enumeration must fail with `rc` and this message before it delivers `firstMissing`.
    void ExpectFailure(u32 rc, std::string_view text, i64 firstMissing) {
        SeenRecords seen;
        EXPECT_EQ(m_storage.Enumerate(&seen), rc);
        EXPECT_EQ(m_log.CodeOf(text), rc) << m_log;
        EXPECT_EQ(RevsOf(seen), RevRange(1, firstMissing - 1));
        EXPECT_EQ(m_storage.State(), StorageState::kBroken);
        EXPECT_EQ(m_storage.Enumerate(&seen), RC_WRONG_STATE);
    }

    ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    LogCapture m_log;
};

std::string SysErr(SystemErrorKind kind) {
    char text[64];
    K9SysSNPrintf(text, sizeof text, "%r", platform::SystemErrorOf(kind));
    return text;
}

TEST_F(EnumerationOfADamagedFile, FailsAtAWrongSignature) {
    Patch(OffsetOf(4), 0x12345678);
    ExpectFailure(RC_BAD_DATA,
                  "Wrong signature (0x12345678) found, offset " + std::to_string(OffsetOf(4)), 4);
}

// Behind the last block's key the pass of the file has no upper bound of its own.
TEST_F(EnumerationOfADamagedFile, FailsAtARecordThatWasNeverCommitted) {
    Patch(OffsetOf(4) + 8, 1000);
    ASSERT_EQ(StorageAccess::Blocks(m_storage.Object()).Shrink(0, 20), RC_OK);
    ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 1000,last committed rev 20", 4);
}

TEST_F(EnumerationOfADamagedFile, FailsAtARevisionAboveTheRangeThatWasNeverCommitted) {
    Patch(OffsetOf(4) + 8, 1000);
    ExpectFailure(RC_BAD_DATA, "Read uncommitted rec with rev 1000,last committed rev 20", 4);
}

TEST_F(EnumerationOfADamagedFile, EndsAtTheRecordBehindTheRangeWhateverIsDamagedBehindIt) {
    Patch(OffsetOf(8), 0x12345678);
    EXPECT_EQ(RevsOf(m_storage.Records(2, 6)), RevRange(2, 6));
    EXPECT_EQ(RevsOf(m_storage.Records(5, 5)), Revs({5}));
}

// The index leads the load past the damage, which only the enumeration then meets.
TEST(EnumerationOfWhatTheIndexPassedOver, FailsAtARevisionAboveTheRange) {
    const auto offsetOf = [](i64 rev) { return 1056 + (rev - 1) * (34 + 32); };
    TestStorage storage(SmallCache(1));  // blocks of four such records
    for (u32 n = 1; n <= 20; ++n) {
        ASSERT_EQ(storage.Insert("ten bytes."), RC_OK);
    }
    storage.Reopen();  // which saves the index
    storage.Close();
    PatchBytes(storage.Path(), offsetOf(6) + 8, std::vector<u8>{19});
    LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("Index test passed"), 1U) << log;
    SeenRecords seen;
    EXPECT_EQ(storage.Enumerate(&seen), RC_BAD_DATA);
    EXPECT_EQ(RevsOf(seen), RevRange(1, 5));
    EXPECT_EQ(log.CodeOf("Read rec with rev 19, but revs up to 16 reach to offset " +
                         std::to_string(offsetOf(17)) + ", offset " + std::to_string(offsetOf(6))),
              RC_BAD_DATA)
        << log;
}

// The record behind the range is in the file, but its commit block is being written.
TEST(EnumerationInAFlush, EndsAtARecordOfTheFlush) {
    Notified written;
    TestStorage storage(SmallCache(1, "async_mode=no;"));
    for (u32 n = 1; n <= 5; ++n) {
        ASSERT_EQ(storage.Insert(OneBlock("")), RC_OK);
    }
    Revs seen;
    written.Does([&](i64 rev) { seen = RevsOf(storage.Records(2, rev - 1)); });
    written.SetAsOnWriteToFile(storage);
    ASSERT_EQ(storage.Insert(OneBlock("six")), RC_OK);
    EXPECT_EQ(seen, RevRange(2, 5));
    written.Does({});
}

TEST_F(EnumerationOfADamagedFile, FailsAtASizeThatRunsPastTheData) {
    Patch(OffsetOf(4) + 4, 0x7FFFFFFF);
    Patch(OffsetOf(4) + 20, 0x7FFFFFFF - 24);
    ExpectFailure(
        RC_BAD_DATA,
        "Wrong rec size 2147483647, data size 2147483623, offset " + std::to_string(OffsetOf(4)),
        4);
}

TEST_F(EnumerationOfADamagedFile, FailsAtASizeThatWouldStandStill) {
    Patch(OffsetOf(4) + 4, 0);
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen), RC_BAD_DATA);
    EXPECT_EQ(m_storage.State(), StorageState::kBroken);
}

TEST_F(EnumerationOfADamagedFile, FailsWhenTheSystemCannotRead) {
    FailRead(1, SystemErrorKind::kInputOutput);
    ExpectFailure(
        RC_SYSTEM_ERROR,
        "Failed to read block;sys-err " + SysErr(SystemErrorKind::kInputOutput) + ",offset 1056",
        1);
}

TEST_F(EnumerationOfADamagedFile, FailsWhenTheSystemCannotSeek) {
    FailSeek(1, SystemErrorKind::kInputOutput);
    ExpectFailure(RC_SYSTEM_ERROR,
                  "Cannot seek to start enum recs;offset 1056, sys-err " +
                      SysErr(SystemErrorKind::kInputOutput),
                  1);
}

TEST_F(EnumerationOfADamagedFile, FailsWhenTheFileHasBecomeShorter) {
    ResizeFile(m_storage.Path(), OffsetOf(4) + 10);
    ExpectFailure(RC_FILE_CORRUPT, "Couldn't read 24 bytes at once", 4);
}

TEST_F(EnumerationOfADamagedFile, CanBeReadAgainAfterReopening) {
    FailRead(1);
    SeenRecords seen;
    EXPECT_EQ(m_storage.Enumerate(&seen), RC_SYSTEM_ERROR);
    m_storage.Reopen();
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 20));
}

}  // namespace
}  // namespace k9erepl::test
