// Visitors that use the storage file while the enumeration that called them goes on.
#include <functional>
#include <stdexcept>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

using Visitor = std::function<u32(i64 offset, const K9eReplRec* rec)>;

class EnumNested : public SolidTest {
  protected:
    // 60 records of 200 KB, several read buffers long, closed in tens.
    EnumNested() {
        FileBuilder file;
        file.NewFile();
        for (i64 rev = 1; rev <= kRecords; ++rev) {
            m_expected.push_back("record " + std::to_string(rev) + " at " +
                                 std::to_string(file.Size()) + ": 200000 pattern bytes");
            file.LargeRecord(rev, 200'000);
            if (rev % 10 == 0) {
                file.Commit(0, rev);
            }
        }
        Open(file, "read_buffers_count=1");
        EXPECT_EQ(Scan(), RC_OK);
        m_log.Clear();
    }

    u32 EnumerateWith(const Visitor& visitor, i64 fromRev = 1, i64 toRev = 1000) {
        bool completed = false;
        return m_solid.EnumFileRecs(
            {.fromRev = fromRev, .toRev = toRev},
            [](i64 offset, const K9eReplRec* rec, void* ctx) -> u32 {
                return (*static_cast<const Visitor*>(ctx))(offset, rec);
            },
            const_cast<Visitor*>(&visitor), &completed);
    }
    // The texts of a whole enumeration whose visitor does `work` before it looks at its record.
    Items TextsAfter(const std::function<void(const K9eReplRec&)>& work) {
        Items texts;
        EXPECT_EQ(EnumerateWith([&](i64 offset, const K9eReplRec* rec) {
                      work(*rec);
                      texts.push_back(RecordText(offset, *rec));
                      return RC_OK;
                  }),
                  RC_OK)
            << m_log;
        return texts;
    }

    static constexpr i64 kRecords = 60;
    Items m_expected;
};

TEST_F(EnumNested, AVisitorsRecordSurvivesTheVisitorsOwnEnumeration) {
    EXPECT_EQ(TextsAfter([this](const K9eReplRec& rec) {
                  const i64 other = kRecords + 1 - rec.rev;
                  EXPECT_EQ(Enumerated(other, other),
                            Items{m_expected.at(static_cast<std::size_t>(other - 1))});
              }),
              m_expected);
}

TEST_F(EnumNested, ThreeLevelsKeepTheirPlaces) {
    u32 visits = 0;
    EXPECT_EQ(TextsAfter([&](const K9eReplRec& outer) {
                  if (outer.rev % 20 != 0) {
                      return;
                  }
                  EXPECT_EQ(TextsAfter([&](const K9eReplRec& inner) {
                                if (inner.rev % 30 == 0) {
                                    EXPECT_EQ(Enumerated(1, kRecords), m_expected);
                                    ++visits;
                                }
                            }),
                            m_expected);
              }),
              m_expected);
    EXPECT_EQ(visits, 6U);
}

TEST_F(EnumNested, AnEnumerationAfterANestedOneReusesItsBuffers) {
    TextsAfter([this](const K9eReplRec&) { Enumerated(1, 1); });
    const u32 allocations = CallCount(SystemCall::kAlloc);
    TextsAfter([this](const K9eReplRec&) { Enumerated(2, 2); });
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
}

TEST_F(EnumNested, WithoutMemoryForItsBuffersFailsAlone) {
    EXPECT_EQ(TextsAfter([this](const K9eReplRec&) {
                  FailAlloc(1, ReadCacheManager::kBufferSize);
                  EXPECT_EQ(EnumerateRevs(1, 1), RC_NO_MEMORY);
              }),
              m_expected);
    EXPECT_EQ(Enumerated(1, 1), Items{m_expected[0]});
}

TEST_F(EnumNested, AVisitorMayWrite) {
    i64 written = kRecords;
    EXPECT_EQ(TextsAfter([&](const K9eReplRec&) { WriteTransaction(++written, "more"); }),
              m_expected);
    EXPECT_EQ(written, 2 * kRecords);
    EXPECT_EQ(FlushedRev(), 2 * kRecords);
    EXPECT_EQ(Enumerated(kRecords + 1, 1000).size(), 60U);
}

TEST_F(EnumNested, ReadsAnewWhatMayHaveChangedDuringAVisit) {
    constexpr i64 kDataOfRecord2 = kFirstItemOffset + 200'024 + kRecordHeadSize;
    Items texts = TextsAfter([this](const K9eReplRec& rec) {
        if (rec.rev == 1) {
            PatchBytes(Path(), kDataOfRecord2, std::vector<u8>(9, 0xEE));
            EXPECT_EQ(m_solid.Commit(), RC_OK);
        }
    });
    ASSERT_EQ(texts.size(), m_expected.size());
    EXPECT_EQ(texts[1], "record 2 at 201080: 200000 other bytes");
    m_expected[1] = texts[1];
    EXPECT_EQ(texts, m_expected);
}

TEST_F(EnumNested, NestedReadsSeeWhatHasChangedSince) {
    const auto nested = [this] {
        Items found;
        EnumerateWith(
            [&](i64, const K9eReplRec*) {
                found = Enumerated(1, 1);
                return RC_OK;
            },
            60, 60);
        return found;
    };
    EXPECT_EQ(nested(), Items{m_expected[0]});
    PatchBytes(Path(), kFirstItemOffset + kRecordHeadSize, std::vector<u8>(9, 0xEE));
    EXPECT_EQ(m_solid.Commit(), RC_OK);
    EXPECT_EQ(nested(), Items{"record 1 at 1056: 200000 other bytes"});
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(nested(), Items{"record 1 at 1056: 200000 other bytes"});
}

TEST_F(EnumNested, AVisitorMayRollBackItsOwnWrites) {
    EXPECT_EQ(TextsAfter([&](const K9eReplRec&) {
                  EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
                  WriteRecord(kRecords + 1, "undone");
                  EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
              }),
              m_expected);
    EXPECT_EQ(FlushedRev(), kRecords);
}

TEST_F(EnumNested, AVisitorMayChangeTheHeader) {
    EXPECT_EQ(TextsAfter([this](const K9eReplRec& rec) {
                  EXPECT_EQ(m_solid.SetLifenum(static_cast<u32>(rec.rev)), RC_OK);
              }),
              m_expected);
    u32 lifenum = 0;
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_OK);
    EXPECT_EQ(lifenum, 60U);
}

TEST_F(EnumNested, AVisitorThatThrowsLeavesTheEnumerationUsable) {
    const auto throwing = [](i64, const K9eReplRec*) -> u32 {
        throw std::runtime_error("visitor");
    };
    EXPECT_THROW(EnumerateWith(throwing), std::runtime_error);
    const u32 allocations = CallCount(SystemCall::kAlloc);
    EXPECT_EQ(Enumerated(1, kRecords), m_expected);
    EXPECT_EQ(CallCount(SystemCall::kAlloc), allocations);
}

}  // namespace
}  // namespace k9erepl::test
