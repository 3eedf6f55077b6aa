// The setting check: a load with it reads the whole storage file, also what the index lets it pass
// over, and refuses a file that is damaged in the middle before anything is written.
#include <gtest/gtest.h>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// 20 records, four to a block, of which the index lets a load read the last eight.
class WholeCheck : public ::testing::Test {
  protected:
    WholeCheck() {
        for (u32 n = 1; n <= 20; ++n) {
            EXPECT_EQ(m_storage.Insert("ten bytes."), RC_OK);
        }
        m_storage.Reopen();  // which saves the index
        m_storage.Close();
        m_storage.Use(SmallCache(1, "check=yes;"));
        m_log.Clear();
    }

    static constexpr i64 OffsetOf(i64 rev) { return 1056 + (rev - 1) * (34 + 32); }
    // The record's signature.
    void Damage(i64 rev) { PatchBytes(m_storage.Path(), OffsetOf(rev), std::vector<u8>{0x55}); }
    void RemoveIndex() { ASSERT_TRUE(platform::RemoveFile(IndexPath(m_storage))); }
    std::string Report(i64 rev) const {
        return "Damage in the middle of file '" + m_storage.Path() + "';offset " +
               std::to_string(OffsetOf(rev)) + ",last good rev " + std::to_string(rev - 1) +
               ",revs beyond " + std::to_string(rev + 1) + "-20";
    }
    std::string Refusal(i64 rev) const {
        return "Storage file is damaged in the middle, nothing was changed; load it without "
               "check=yes to go on with what can be read;file path '" +
               m_storage.Path() + "',offset " + std::to_string(OffsetOf(rev)) + ",last good rev " +
               std::to_string(rev - 1);
    }
    void ExpectRefused() {
        const std::vector<u8> file = ReadBytes(m_storage.Path());
        EXPECT_EQ(m_storage.TryOpenAndLoad(), RC_FILE_CORRUPT);
        EXPECT_EQ(m_storage.State(), StorageState::kClosed);
        EXPECT_NE(m_storage.Insert("refused"), RC_OK);
        m_storage.Close();
        EXPECT_EQ(ReadBytes(m_storage.Path()), file);
        EXPECT_FALSE(Exists(m_storage.Path() + ".damaged-tail"));
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{SmallCache(1)};
    LogCapture m_log;
};

TEST_F(WholeCheck, OfASoundFileChangesNothing) {
    for (const bool withIndex : {true, false}) {
        if (!withIndex) {
            RemoveIndex();
        }
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
        EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Use check yes")) << m_log;
        EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 20));
        EXPECT_EQ(m_storage.NextRev(), 21);
        m_storage.Close();
    }
    EXPECT_TRUE(m_log.Texts(K9SYS_LOG_ERROR).empty()) << m_log;
}

TEST_F(WholeCheck, RefusesDamageThatTheIndexPassesOver) {
    Damage(6);
    ExpectRefused();
    EXPECT_EQ(m_log.CountContaining("Index test passed"), 1U) << m_log;
    EXPECT_EQ(m_log.CodeOf(Report(6)), RC_FILE_CORRUPT) << m_log;
    EXPECT_EQ(m_log.CodeOf(Refusal(6)), RC_FILE_CORRUPT) << m_log;
    EXPECT_EQ(m_log.CountContaining("loading without it"), 0U) << m_log;
}

TEST_F(WholeCheck, WithoutItTheIndexLeadsPastTheDamage) {
    Damage(6);
    m_storage.Use(SmallCache(1, "check=no;"));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records(9)), RevRange(9, 20));
    EXPECT_EQ(m_log.CountContaining("Checking the whole storage file"), 0U) << m_log;
}

// Zeros end the data of a file, so that nothing is searched behind them: what is known of the other
// end is enough.
TEST_F(WholeCheck, RefusesZerosThatTheIndexPassesOver) {
    PatchBytes(m_storage.Path(), OffsetOf(6), std::vector<u8>(34 + 32));
    ExpectRefused();
    EXPECT_EQ(m_log.CodeOf(Refusal(6)), RC_FILE_CORRUPT) << m_log;
}

TEST_F(WholeCheck, RefusesDamageWithoutAnIndexToo) {
    Damage(6);
    RemoveIndex();
    ExpectRefused();
    EXPECT_EQ(m_log.CodeOf(Report(6)), RC_FILE_CORRUPT) << m_log;
    EXPECT_EQ(m_log.CodeOf(Refusal(6)), RC_FILE_CORRUPT) << m_log;
}

TEST_F(WholeCheck, TakesATornEnd) {
    ResizeFile(m_storage.Path(), OffsetOf(20) + 40);
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 19));
}

TEST_F(WholeCheck, MayBeFollowedByALoadWithoutIt) {
    Damage(6);
    ExpectRefused();
    m_storage.Use(SmallCache(1));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(RevsOf(m_storage.Records(9)), RevRange(9, 20));
}

TEST_F(WholeCheck, AlsoLooksWhereTheFileIsOnlyRead) {
    Damage(6);
    for (const std::string& settings : {std::string("read_only=yes;check=yes;") + SmallCache(1),
                                        std::string(kNoFile) + "check=yes;block_size=138;"}) {
        m_storage.Use(settings);
        ExpectRefused();
        EXPECT_EQ(m_log.CodeOf(Refusal(6)), RC_FILE_CORRUPT) << m_log;
        m_log.Clear();
    }
}

TEST_F(WholeCheck, FailsWithTheSystem) {
    ASSERT_EQ(m_storage.TryOpen(), RC_OK);
    FailAlloc(2, FileScan::kBufferSize);
    EXPECT_EQ(m_storage.TryLoad(), RC_NO_MEMORY);
    EXPECT_EQ(m_storage.TryLoad(), RC_OK) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 20));
}

TEST_F(WholeCheck, RefusesAnyOtherWord) {
    m_storage.Use("check=perhaps");
    EXPECT_EQ(m_storage.TryOpen(), RC_INVALID_ARG);
    EXPECT_EQ(m_log.CodeOf("Unknown check value (perhaps)"), RC_INVALID_ARG) << m_log;
}

// The index leads into the data of a record that looks like the end of a storage file.
TEST_F(WholeCheck, DropsAnIndexThatLeadsIntoARecordsData) {
    FileBuilder fake;
    fake.Record(7, "seven").Commit(0, 7);
    FileBuilder file;
    file.NewFile().Record(1, "one").Commit(0, 1);
    const i64 inside = file.Size() + kRecordHeadSize;
    file.Record(2, {reinterpret_cast<const char*>(fake.Bytes().data()), fake.Bytes().size()});
    file.Commit(0, 2).Record(3, "three").Commit(0, 3).Save(m_storage.Path());
    WriteIndex(m_storage, {{1, 1056}, {7, inside}, {8, inside + 1}});  // starts at the second
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK) << m_log;
    EXPECT_EQ(m_log.CountContaining("Index led the load to another end"), 1U) << m_log;
    EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(1, 3));
}

}  // namespace
}  // namespace k9erepl::test
