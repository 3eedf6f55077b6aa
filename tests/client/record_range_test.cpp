// RecordRange: the records of a range, fetched in pieces.
#include <gtest/gtest.h>

#include <iterator>
#include <ranges>
#include <string>

#include "client/client_storage.h"

namespace k9erepl::test {

namespace {

static_assert(std::ranges::input_range<RecordRange>);

class RangeOfRecords : public ClientStorage {
  protected:
    // `count` records with `size` bytes each.
    Storage Filled(int count, std::size_t size) {
        Storage storage = Storage::OpenOrCreate(InFile().BlockSize(1 << 20)).Value();
        auto transaction = storage.Begin().Value();
        for (int i = 0; i < count; ++i) {
            transaction.Insert(std::string(size, 'x'), static_cast<std::uint32_t>(i)).Value();
        }
        transaction.Commit().Value();
        return storage;
    }
};

TEST_F(RangeOfRecords, IsEmptyInAnEmptyStorage) {
    EXPECT_TRUE(RevsOf(Opened(), kFirstRev, kLastRev).empty());
}

TEST_F(RangeOfRecords, HasItsBounds) {
    const Storage storage = Filled(10, 3);
    EXPECT_EQ(RevsOf(storage, 3, 5), (std::vector<std::int64_t>{3, 4, 5}));
    EXPECT_EQ(RevsOf(storage, 10, 10), (std::vector<std::int64_t>{10}));
    EXPECT_TRUE(RevsOf(storage, 11, kLastRev).empty());
    EXPECT_TRUE(RevsOf(storage, 5, 4).empty());
}

TEST_F(RangeOfRecords, GoesOnWhereAPieceIsFull) {
    const Storage storage = Filled(1000, 300);  // about five pieces
    std::int64_t expected = 1;
    for (const Record& record : storage.Records()) {
        ASSERT_EQ(record.rev, expected);
        ASSERT_EQ(record.userWord, expected - 1);
        ASSERT_EQ(record.data.size(), 300U);
        ++expected;
    }
    EXPECT_EQ(expected, 1001);
}

TEST_F(RangeOfRecords, TakesARecordThatIsLargerThanAPiece) {
    Storage storage = Filled(1, 500'000);
    storage.Insert("small").Value();
    std::vector<std::size_t> sizes;
    for (const Record& record : storage.Records()) {
        sizes.push_back(record.data.size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{500'000, 5}));
}

TEST_F(RangeOfRecords, SeesWhatIsAppendedBetweenTwoPieces) {
    Storage storage = Filled(1000, 300);
    std::int64_t last = 0;
    for (const Record& record : storage.Records()) {
        if (record.rev == 1) {
            storage.Insert("late").Value();
        }
        last = record.rev;
    }
    EXPECT_EQ(last, 1001);
}

TEST_F(RangeOfRecords, ThrowsWhenTheStorageCannotBeRead) {
    Storage::Create(InFile()).Value();
    const Storage unloaded = Storage::OpenUnloaded(InFile()).Value();
    try {
        RevsOf(unloaded, 1, 2);
        FAIL() << "nothing was thrown";
    } catch (const StorageError& e) {
        EXPECT_EQ(e.Code(), RC_WRONG_STATE);
    }
}

}  // namespace

}  // namespace k9erepl::test
