// A negative clear revision in the file's first commit block, as one flipped bit leaves it: the
// load takes it, the writer carries it on, and nothing that is written falls below it or hides what
// follows.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <ostream>

#include "engine/clear_fixture.h"
#include "platform/file_names.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

constexpr std::size_t kFirstClearRevAt = 1040;

struct Flaw {
    const char* name;
    i64 clearRev;
};
std::ostream& operator<<(std::ostream& out, const Flaw& flaw) {
    return out << flaw.name;
}
constexpr Flaw kFlaws[] = {
    {"TopBitFlipped", std::numeric_limits<i64>::min()}, {"MinusOne", -1}, {"AllOfIt", -1000}};

class NegativeClearRev : public ::testing::TestWithParam<Flaw> {
  protected:
    // Closes the storage, damages its file and opens it again.
    void Damage() {
        m_storage.Close();
        std::vector<u8> bytes = ReadBytes(m_storage.Path());
        const i64 clearRev = GetParam().clearRev;
        std::memcpy(bytes.data() + kFirstClearRevAt, &clearRev, sizeof clearRev);
        WriteBytes(m_storage.Path(), bytes);
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
    }
    // Reopens with the index and without it; each time the storage holds these records and takes
    // one more.
    void ExpectRecords(i64 first, i64 last) {
        for (const bool withIndex : {true, false, true}) {
            EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(first, last));
            EXPECT_EQ(m_storage.NextRev(), last + 1);
            ASSERT_EQ(m_storage.Insert("more"), RC_OK);
            ++last;
            m_storage.Close();
            if (!withIndex) {
                ASSERT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
            }
            ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
            EXPECT_EQ(RevsOf(m_storage.Records()), RevRange(first, last));
        }
    }

    TestStorage m_storage{SmallCache(2)};
};

TEST_P(NegativeClearRev, IsLoadedAndCarriedOn) {
    m_storage.InsertMany(3);
    Damage();
    ExpectRecords(1, 3);
}

TEST_P(NegativeClearRev, OfRecordsWrittenBeforeOutlastsASqueeze) {
    m_storage.InsertMany(9);
    Damage();
    ASSERT_EQ(m_storage.Clear(4, kSqueeze), RC_OK);
    ExpectRecords(4, 9);
}

TEST_P(NegativeClearRev, OfRecordsWrittenBehindItOutlastsASqueeze) {
    Damage();
    m_storage.InsertMany(9);
    ASSERT_EQ(m_storage.Clear(4, kSqueezeBackup), RC_OK);
    ExpectRecords(4, 9);
    ASSERT_EQ(m_storage.Clear(6, kSqueeze), RC_OK);
    ExpectRecords(6, 12);
}

TEST_P(NegativeClearRev, OutlastsALogicalClearAndASqueezeOfItsRest) {
    Damage();
    m_storage.InsertMany(9);
    ASSERT_EQ(m_storage.Clear(3, kLogical), RC_OK);
    ExpectRecords(3, 9);
    ASSERT_EQ(m_storage.Clear(1, kSqueeze), RC_OK);
    ExpectRecords(3, 12);
}

TEST_P(NegativeClearRev, OutlastsAClearToANegativeRevision) {
    Damage();
    m_storage.InsertMany(3);
    ASSERT_EQ(m_storage.Clear(-3, kLogical), RC_OK);
    ASSERT_EQ(m_storage.Clear(0, kSqueeze), RC_OK);
    ExpectRecords(1, 3);
}

TEST_P(NegativeClearRev, GoesWhenEverythingIsCleared) {
    Damage();
    m_storage.InsertMany(3);
    ASSERT_EQ(m_storage.ClearAll(kLogical), RC_OK);
    ASSERT_EQ(m_storage.Insert("four"), RC_OK);
    ExpectRecords(4, 4);
}

INSTANTIATE_TEST_SUITE_P(All, NegativeClearRev, ::testing::ValuesIn(kFlaws),
                         [](const auto& flaw) { return std::string(flaw.param.name); });

}  // namespace
}  // namespace k9erepl::test
