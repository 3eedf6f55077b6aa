// A storage in a folder that may be written but not read: its names cannot be flushed to the disk,
// which is told as a warning; everything else works.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

class UnreadableFolder : public ::testing::Test {
  protected:
    UnreadableFolder() {
        Fail(SystemCall::kFlushDirectory, 1, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    }
    std::size_t Warnings() const {
        return m_log.CountContaining("Directory may not be read and cannot be flushed");
    }
    bool LoggedErrors() const { return !m_log.Texts(K9SYS_LOG_ERROR).empty(); }

    const ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
};

TEST_F(UnreadableFolder, LetsAStorageLiveInIt) {
    TestStorage storage(SmallCache(1));
    EXPECT_EQ(Warnings(), 1U);
    storage.InsertMany(9);
    for (const u32 mode : {kLogical, kSqueeze, kSqueezeBackup}) {
        ASSERT_EQ(storage.Clear(storage.FirstRev() + 2, mode), RC_OK) << m_log;
        storage.Reopen();
        EXPECT_EQ(RevsOf(storage.Records()), RevRange(storage.FirstRev(), 9));
    }
    ASSERT_EQ(storage.Truncate(), RC_OK);
    storage.Close();
    ASSERT_EQ(K9eReplStorageDelete(storage.ConnStr().c_str()), RC_OK);
    EXPECT_FALSE(Exists(storage.Path()));
    EXPECT_GE(Warnings(), 4U);
    EXPECT_FALSE(LoggedErrors()) << m_log;
}

TEST_F(UnreadableFolder, TakesADamagedTail) {
    TestStorage storage(SmallCache(2));
    storage.InsertMany(6);
    storage.Close();
    const std::vector<u8> bytes = ReadBytes(storage.Path());
    const std::string text(bytes.begin(), bytes.end());
    PatchBytes(storage.Path(), static_cast<i64>(text.find("r3") - kRecordHeadSize),
               std::vector<u8>{0x55});
    WriteBytes(IndexPath(storage), {});
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(storage.Texts(), Numbered(2));
    EXPECT_TRUE(Exists(storage.Path() + ".damaged-tail"));
    EXPECT_EQ(m_log.CountContaining("Cannot keep damaged tail"), 0U) << m_log;
}

TEST_F(UnreadableFolder, TakesTheFoldersOfAnIndexFile) {
    const TempFolder folder;
    TestStorage storage(SmallCache(1, "index_file=" + folder.File("a/b/index") + ";"));
    storage.InsertMany(3);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Numbered(3));
    EXPECT_TRUE(Exists(folder.File("a/b/index")));
    EXPECT_FALSE(LoggedErrors()) << m_log;
}

}  // namespace
}  // namespace k9erepl::test
