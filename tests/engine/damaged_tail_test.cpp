// A storage whose file is damaged in the middle: it is loaded as ever, and what lies behind the
// damage is kept before anything is written over it.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

class StorageWithDamage : public ::testing::Test {
  protected:
    StorageWithDamage() : m_storage(SmallCache(2)) {
        m_storage.InsertMany(6);
        m_storage.Close();
        Damage();
    }
    // Of "r3": everything from revision 3 on is lost to a load.
    void Damage() {
        std::vector<u8> bytes = ReadBytes(m_storage.Path());
        const std::string text(bytes.begin(), bytes.end());
        PatchBytes(m_storage.Path(), static_cast<i64>(text.find("r3") - kRecordHeadSize),
                   std::vector<u8>{0x55});
        EXPECT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
    }
    std::string Copy(const std::string& number = "") const {
        return m_storage.Path() + ".damaged-tail" + number;
    }
    std::size_t Reports() const { return m_log.CountContaining("Damage in the middle of file"); }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage;
    LogCapture m_log;
};

TEST_F(StorageWithDamage, LoadsWhatIsSoundAndKeepsTheRest) {
    const std::vector<u8> before = ReadBytes(m_storage.Path());
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(m_storage.Texts(), Numbered(2));
    EXPECT_EQ(m_storage.NextRev(), 3);
    EXPECT_EQ(Reports(), 1U);
    EXPECT_EQ(FileBytes(m_storage), before);
    const std::vector<u8> copy = ReadBytes(Copy());
    m_storage.InsertCommitted({"new"});
    EXPECT_EQ(ReadBytes(Copy()), copy);
    // What is sound and the copy together are the file that was damaged.
    std::vector<u8> whole(before.begin(), before.end() - static_cast<std::ptrdiff_t>(copy.size()));
    whole.insert(whole.end(), copy.begin(), copy.end());
    EXPECT_EQ(whole, before);
}

TEST_F(StorageWithDamage, KeepsOneCopyAnEvent) {
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        m_storage.Close();
    }
    EXPECT_EQ(Reports(), 3U);
    EXPECT_FALSE(Exists(Copy(".1")));
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    m_storage.InsertMany(5);
    m_storage.Close();
    Damage();
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_TRUE(Exists(Copy(".1")));
    EXPECT_FALSE(Exists(Copy(".2")));
}

TEST_F(StorageWithDamage, ThatIsOnlyReadReportsAndWritesNothing) {
    TestStorage reader("file=" + m_storage.Path() + ";" + std::string(kNoFile), Start::kNothing);
    ASSERT_EQ(reader.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(reader.Texts(), Numbered(2));
    EXPECT_EQ(Reports(), 1U);
    EXPECT_FALSE(Exists(Copy()));
}

TEST_F(StorageWithDamage, MayBeClearedOnceTheCopyIsThere) {
    for (const u32 mode : {0U, 1U, 2U}) {
        (void)platform::RemoveFile(Copy());  // dropped: there may be none
        FailRename(1);
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        ASSERT_FALSE(Exists(Copy()));
        const std::vector<u8> before = ReadBytes(m_storage.Path());
        EXPECT_EQ(m_storage.ClearAll(mode), RC_OK);
        const std::vector<u8> copy = ReadBytes(Copy());
        EXPECT_TRUE(std::equal(copy.rbegin(), copy.rend(), before.rbegin())) << mode;
        m_storage.InsertMany(6);
        m_storage.Close();
        Damage();
    }
}

TEST_F(StorageWithDamage, IsNotOneWhoseTransactionWasRolledBack) {
    SKIP_WHEN_ASYNC("a failed write is reported by the flush that made it");
    EXPECT_TRUE(platform::RemoveFile(m_storage.Path()));
    ASSERT_EQ(m_storage.TryCreate(), RC_OK);
    m_storage.Use(std::string(kEachCommit) + "force_flush=yes;");
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    m_storage.InsertMany(2);
    ASSERT_EQ(m_storage.Begin(), RC_OK);
    ASSERT_EQ(m_storage.Insert("x"), RC_OK);
    FailFlush(1, SystemErrorKind::kInputOutput, Repeat::kFromThenOn);
    EXPECT_EQ(m_storage.Commit(), RC_SYSTEM_ERROR);
    m_storage.Close();
    StopFailing(SystemCall::kFlush);
    ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(Reports(), 0U);
}

}  // namespace
}  // namespace k9erepl::test
