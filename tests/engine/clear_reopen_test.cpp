// What a clear leaves for the lives after it: through the index and without it, under other
// settings, with clears of every mode in between.
#include <gtest/gtest.h>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

struct Life {
    Keeping keeping;
    bool withIndex;
};

void PrintTo(const Life& life, std::ostream* out) {
    *out << life.keeping << (life.withIndex ? " with index" : " without index");
}

std::vector<Life> EveryLife() {
    std::vector<Life> lives;
    for (const Keeping& keeping : KeepingsWithFile()) {
        lives.push_back({keeping, true});
        lives.push_back({keeping, false});
    }
    return lives;
}

class ReopenedAfterAClear : public ::testing::TestWithParam<Life> {
  protected:
    void Reopen() {
        if (GetParam().withIndex) {
            m_storage.Reopen();
        } else {
            m_storage.ReopenWithoutIndex();
        }
    }

    ClearableStorage m_storage{GetParam().keeping};
};

INSTANTIATE_TEST_SUITE_P(Life, ReopenedAfterAClear, ::testing::ValuesIn(EveryLife()));

}  // namespace

TEST_P(ReopenedAfterAClear, KnowsThatTheBeginHasMoved) {
    m_storage.Put(9);
    for (const i64 rev : {2, 5, 6, 9}) {
        m_storage.ClearTo(rev, kLogical);
        Reopen();
        EXPECT_TRUE(StorageAccess::BeginMoved(m_storage.Object())) << rev;
        EXPECT_EQ(m_storage.FirstRev(), rev);
        m_storage.ExpectContent();
    }
    m_storage.ExpectContentForLife();
}

TEST_P(ReopenedAfterAClear, KnowsThatItHasNotAfterASqueeze) {
    m_storage.Put(9);
    for (const i64 rev : {2, 5, 6, 9}) {
        m_storage.ClearTo(rev, kSqueeze);
        Reopen();
        EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object())) << rev;
        m_storage.ExpectContent();
    }
    m_storage.ExpectContentForLife();
}

TEST_P(ReopenedAfterAClear, GoesOnClearingInEveryMode) {
    m_storage.Put(4);
    i64 rev = 2;
    for (const u32 mode : {kLogical, kSqueeze, kLogical, kLogical, kSqueezeBackup, 3U, kSqueeze}) {
        m_storage.ClearTo(rev, mode);
        Reopen();
        m_storage.ExpectContent();
        m_storage.Put(3);
        rev += 3;
    }
    m_storage.ExpectContentForLife();
}

TEST_P(ReopenedAfterAClear, ServesTheSameAfterAClearIntoAGap) {
    for (const u32 mode : {kLogical, kSqueeze}) {
        ClearableStorage storage(GetParam().keeping);
        storage.Put(3);
        storage.PutAt(10);
        storage.Put(2);
        storage.PutAt(20);
        storage.Put(5);
        for (const i64 rev : {7, 15, 18}) {
            storage.ClearTo(rev, mode);
            storage.Reopen();
            storage.ExpectContent();
            ExpectEveryRange(storage, storage.Content(), 25);
        }
        storage.ExpectContentForLife();
    }
}

TEST_P(ReopenedAfterAClear, KeepsTheNextAndTheOldestRevisionWhenNothingIsLeft) {
    m_storage.Put(5);
    m_storage.ClearTo(6, kLogical);
    for (int life = 0; life < 3; ++life) {
        Reopen();
        m_storage.ExpectContent();
        EXPECT_EQ(m_storage.OldestRev(), 5);
        EXPECT_FALSE(StorageAccess::BeginMoved(m_storage.Object()));
    }
    m_storage.ExpectContentForLife();
}

TEST_P(ReopenedAfterAClear, ServesTheSameUnderOtherSettings) {
    m_storage.Put(9);
    m_storage.ClearTo(4, kLogical);
    m_storage.Put(3);
    for (const Keeping& keeping : KeepingsWithFile()) {
        m_storage.Use(keeping.settings + "block_size=300;");
        Reopen();
        m_storage.ExpectContent();
        m_storage.Put();
        m_storage.Use(keeping.settings);
        Reopen();
        m_storage.ExpectContent();
    }
    m_storage.ClearTo(0, kSqueeze);
    m_storage.ExpectContentForLife();
}

// An index from before a logical clear describes blocks that are still in the file.
TEST_P(ReopenedAfterAClear, ServesTheSameWithAnOlderIndex) {
    m_storage.Put(9);
    m_storage.Reopen();
    const std::vector<u8> older = ReadBytes(IndexPath(m_storage));
    for (const i64 rev : {2, 6, 7}) {
        m_storage.ClearTo(rev, kLogical);
        m_storage.Close();
        WriteBytes(IndexPath(m_storage), older);
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        m_storage.ExpectContent();
        EXPECT_TRUE(StorageAccess::BeginMoved(m_storage.Object()));
    }
    m_storage.ClearTo(0, kSqueeze);
    m_storage.ExpectContentForLife();
}

TEST(ReopenedAfterASqueeze, UsesTheIndex) {
    ClearableStorage storage(KeepOnDisk());
    storage.Put(20);
    storage.ClearTo(5, kSqueeze);
    const IndexEntries saved = ReadIndexEntries(storage);
    storage.Close();
    const LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("Index test passed; start loading from offset "), 1U) << log;
    EXPECT_EQ(log.CountContaining("Loaded rec;"), 4U) << log;
    EXPECT_EQ(EntriesInMemory(storage), saved);
    storage.ExpectContentForLife();
}

TEST(ReopenedAfterALogicalClear, UsesTheIndex) {
    ClearableStorage storage(KeepOnDisk());
    storage.Put(20);
    storage.ClearTo(5, kLogical);
    storage.Close();
    const LogCapture log;
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(log.CountContaining("Index test passed; start loading from offset "), 1U) << log;
    EXPECT_EQ(log.CountContaining("loading without it"), 0U) << log;
    EXPECT_EQ(log.CountContaining("Loaded rec;"), 4U) << log;
    storage.ExpectContentForLife();
}

}  // namespace k9erepl::test
