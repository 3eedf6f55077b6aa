// Storage files that were cut, flipped or scrambled: whatever a load makes of one, it neither
// crashes nor hangs, serves nothing that was not there, and lets the storage go on.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Loading writes nothing: the second run of these tests, with the asynchronous writer, passes most
// places over.
const u32 kStride = RunsAsynchronously() ? 23 : K9EREPL_DAMAGE_STRIDE;

// Three transactions of seven records; the first, the fourth and the last fill a block.
class LoadOfDamage : public ::testing::TestWithParam<const char*> {
  protected:
    LoadOfDamage() {
        m_storage.Use(std::string(kEachCommit) + GetParam());
        m_file.NewFile();
        Add(1, OneBlock("one"));
        Add(2, "two");
        Close(2);
        Add(3, "");
        Close(3);
        Add(4, OneBlock("four"));
        Add(5, "five");
        Add(6, "six");
        Add(7, OneBlock("seven"));
        Close(7);
    }
    void Add(i64 rev, const std::string& data) {
        m_file.Record(rev, data, static_cast<u32>(rev));
        m_records.push_back({rev, static_cast<u32>(rev), data});
    }
    void Close(i64 rev) {
        m_file.Commit(0, rev);
        m_ends.emplace_back(m_file.Size(), m_records.size());
    }

    // Loads these bytes without an index.
    u32 TryLoad(const std::vector<u8>& bytes) {
        (void)platform::RemoveFile(IndexPath(m_storage));  // dropped: there may be none
        WriteBytes(m_storage.Path(), bytes);
        const u32 rc = m_storage.TryOpenAndLoad();
        if (rc != RC_OK && m_storage.IsOpen()) {
            EXPECT_EQ(m_storage.State(), StorageState::kClosed);
            EXPECT_TRUE(StorageAccess::Blocks(m_storage.Object()).Blocks().empty());
            m_storage.Close();
        }
        return rc;
    }
    // Inserts one more and reopens, in turn with the index and without it.
    void ExpectItGoesOn() {
        SeenRecords expected = m_storage.Records();
        const i64 rev = m_storage.NextRev();
        if (rev <= kMaxRev) {
            ASSERT_EQ(m_storage.Insert("next", 9), RC_OK);
            expected.push_back({rev, 9, "next"});
        }
        EXPECT_EQ(m_storage.Records(), expected);
        m_storage.Close();
        if (++m_reopenings % 2 == 0) {
            EXPECT_TRUE(platform::RemoveFile(IndexPath(m_storage)));
        }
        ASSERT_EQ(m_storage.TryOpenAndLoad(), RC_OK);
        EXPECT_EQ(m_storage.Records(), expected);
        m_storage.Close();
    }
    // What a file cut to `size` bytes still commits; with `zeros` behind them, which may replace
    // what was cut off.
    SeenRecords CommittedIn(i64 size, bool zeros = false) const {
        while (zeros && size < m_file.Size() &&
               m_file.Bytes()[static_cast<std::size_t>(size)] == 0) {
            ++size;
        }
        std::size_t count = 0;
        for (const auto& [end, records] : m_ends) {
            count = size >= end ? records : count;
        }
        return {m_records.begin(), m_records.begin() + static_cast<std::ptrdiff_t>(count)};
    }
    // Whether `seen` is a run of the file's records, of which one may have changed.
    bool IsRunWithOneChange(const SeenRecords& seen) const {
        for (std::size_t first = 0; first + seen.size() <= m_records.size(); ++first) {
            std::size_t changed = 0;
            for (std::size_t i = 0; i < seen.size(); ++i) {
                changed += seen[i] == m_records[first + i] ? 0U : 1U;
            }
            if (changed <= 1) {
                return true;
            }
        }
        return false;
    }

    TestStorage m_storage{"", Start::kNothing};
    LogCapture m_log{{"no module"}};
    FileBuilder m_file;
    SeenRecords m_records;
    std::vector<std::pair<i64, std::size_t>> m_ends;  // file size, records committed by then
    u32 m_reopenings = 0;
};

TEST_P(LoadOfDamage, CutAnywhereKeepsWhatWasCommitted) {
    for (i64 size = 0; size <= m_file.Size(); size += kStride) {
        if (size > 40 && size < 1020) {
            size = 1020;
        }
        const std::vector<u8> bytes(m_file.Bytes().begin(), At(m_file.Bytes(), size));
        const u32 rc = TryLoad(bytes);
        EXPECT_EQ(rc, size < 1024 ? RC_SYSTEM_ERROR : size < 1056 ? RC_FILE_CORRUPT : RC_OK);
        if (rc == RC_OK) {
            EXPECT_EQ(m_storage.Records(), CommittedIn(size));
            ExpectItGoesOn();
        }
        ASSERT_FALSE(HasFailure()) << size;
    }
}

TEST_P(LoadOfDamage, CutAnywhereAndFilledWithZerosKeepsWhatWasCommitted) {
    for (i64 size = 1056; size <= m_file.Size(); size += 3 * kStride) {
        std::vector<u8> bytes(m_file.Bytes().begin(), At(m_file.Bytes(), size));
        bytes.resize(4096);
        ASSERT_EQ(TryLoad(bytes), RC_OK) << size;
        EXPECT_EQ(m_storage.Records(), CommittedIn(size, true));
        ExpectItGoesOn();
        ASSERT_FALSE(HasFailure()) << size;
    }
}

TEST_P(LoadOfDamage, WithAnyBitFlippedServesNothingStrange) {
    for (std::size_t bit = 0; bit < m_file.Bytes().size() * 8; bit += kStride) {
        // Of the header only the first fields are looked at, of long data only a part.
        if (bit >= 24 * 8 && bit < 1024 * 8) {
            bit = 1024 * 8;
        }
        std::vector<u8> bytes = m_file.Bytes();
        if (bytes[bit / 8] == '.') {
            continue;
        }
        bytes[bit / 8] = static_cast<u8>(bytes[bit / 8] ^ (1U << bit % 8));
        const u32 rc = TryLoad(bytes);
        EXPECT_TRUE(rc == RC_OK || rc == RC_INVALID_ARG || rc == RC_FILE_CORRUPT) << rc;
        if (rc == RC_OK) {
            EXPECT_TRUE(IsRunWithOneChange(m_storage.Records()));
            if (bit % 5 == 0 || RunsAsynchronously()) {
                ExpectItGoesOn();
            }
        }
        if (m_storage.IsOpen()) {
            m_storage.Close();
        }
        ASSERT_FALSE(HasFailure()) << bit / 8 << '.' << bit % 8;
    }
}

// Random damage of every kind, the same in every run.
class Vandal {
  public:
    explicit Vandal(u32 seed) : m_random(seed) {}

    std::vector<u8> Damage(std::vector<u8> bytes) {
        for (u32 n = 1 + Below(4); n > 0; --n) {
            switch (Below(4)) {
                case 0:
                    bytes.at(Place(bytes)) = static_cast<u8>(Below(256));
                    break;
                case 1:
                    CopyOver(bytes);
                    break;
                case 2:
                    Remove(bytes);
                    break;
                default:
                    Insert(bytes);
                    break;
            }
        }
        return bytes;
    }

  private:
    u32 Below(u32 limit) { return static_cast<u32>(m_random() % limit); }
    // Behind the header, and in two cases of three where an item's head may lie.
    std::size_t Place(const std::vector<u8>& bytes) {
        return 1024 + Below(static_cast<u32>(bytes.size() - 1024));
    }
    u32 Length() { return Below(3) == 0 ? Below(200) : 32; }

    void CopyOver(std::vector<u8>& bytes) {
        const std::vector<u8> copy = bytes;
        std::size_t from = Place(bytes);
        std::size_t to = Place(bytes);
        for (u32 n = Length(); n > 0 && from < bytes.size() && to < bytes.size(); --n) {
            bytes[to++] = copy[from++];
        }
    }
    void Remove(std::vector<u8>& bytes) {
        const std::size_t at = Place(bytes);
        const std::size_t count = std::min<std::size_t>(Length(), bytes.size() - at - 1);
        const auto first = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        bytes.erase(first, first + static_cast<std::ptrdiff_t>(count));
        bytes.resize(std::max<std::size_t>(bytes.size(), 1100));
    }
    void Insert(std::vector<u8>& bytes) {
        const auto at = static_cast<std::ptrdiff_t>(Place(bytes));
        bytes.insert(bytes.begin() + at, Length(), static_cast<u8>(Below(256)));
    }

    std::mt19937 m_random;
};

TEST_P(LoadOfDamage, AtRandomEndsInAStorageThatGoesOnOrIsRefused) {
    for (u32 seed = 1; seed <= 300; ++seed) {
        const u32 rc = TryLoad(Vandal(seed).Damage(m_file.Bytes()));
        EXPECT_TRUE(rc == RC_OK || rc == RC_INVALID_ARG || rc == RC_FILE_CORRUPT) << rc;
        if (rc == RC_OK) {
            const Revs revs = RevsOf(m_storage.Records());
            EXPECT_TRUE(std::is_sorted(revs.begin(), revs.end(), std::less_equal<>()));
            ExpectItGoesOn();
        }
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
    }
}

// With an index from before the damage even the file's old records may be unreadable; the calls
// answer all the same.
TEST_P(LoadOfDamage, AtRandomWithAnOlderIndexCrashesNothing) {
    ASSERT_EQ(TryLoad(m_file.Bytes()), RC_OK);
    const std::vector<u8> index = ReadBytes(IndexPath(m_storage));
    m_storage.Close();
    for (u32 seed = 1; seed <= 200; ++seed) {
        WriteBytes(m_storage.Path(), Vandal(seed).Damage(m_file.Bytes()));
        WriteBytes(IndexPath(m_storage), index);
        if (m_storage.TryOpenAndLoad() == RC_OK) {
            SeenRecords seen;
            const u32 rc = m_storage.Enumerate(&seen);
            EXPECT_TRUE(rc == RC_OK || rc == RC_BAD_DATA || rc == RC_FILE_CORRUPT) << rc;
            EXPECT_EQ(m_storage.State() == StorageState::kOpen, rc == RC_OK);
        }
        m_storage.Close();
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
    }
}

INSTANTIATE_TEST_SUITE_P(Caches, LoadOfDamage,
                         ::testing::Values("cache_type=AllInMem", "cache_type=Last1"),
                         [](const auto& cache) { return std::string(cache.param).substr(11); });

}  // namespace
}  // namespace k9erepl::test
