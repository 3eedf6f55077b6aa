// Storage and Transaction over a real file: what each function does, and how failures come back.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>

#include "client/client_storage.h"

namespace k9erepl::test {

namespace {

using Revs = std::vector<std::int64_t>;

TEST_F(ClientStorage, KeepsRecordsAcrossOpenings) {
    {
        Storage storage = Opened();
        EXPECT_EQ(storage.Insert("one", 11).Value(), 1);
        EXPECT_EQ(storage.Insert(BytesOf("two")).Value(), 2);
    }
    Storage storage = Storage::Open(InFile()).Value();
    std::string seen;
    const auto visited = storage.Enumerate(kFirstRev, kLastRev, [&](const Record& record) {
        seen += std::to_string(record.rev) + ":" + std::string(record.Text()) + "/" +
                std::to_string(record.userWord) + " ";
    });
    EXPECT_TRUE(visited);
    EXPECT_EQ(seen, "1:one/11 2:two/0 ");
    EXPECT_EQ(storage.NextRev().Value(), 3);
}

TEST_F(ClientStorage, OpeningTellsWhatIsMissing) {
    const auto missing = Storage::Open(InFile());
    EXPECT_EQ(missing.Code(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Storage::Open(Settings().File("a;b")).Code(), RC_INVALID_ARG);
    EXPECT_EQ(Storage::Create(Settings()).Code(), RC_INVALID_ARG);
}

TEST_F(ClientStorage, CreateAndDeleteFollowTheirModes) {
    EXPECT_TRUE(Storage::Create(InFile()));
    EXPECT_EQ(Storage::Create(InFile()).Code(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Storage::Create(InFile(), CreateMode::kReplace));
    EXPECT_TRUE(Storage::Create(InFile(), CreateMode::kKeepExisting));
    EXPECT_TRUE(Storage::Delete(InFile()));
    EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(ClientStorage, ATransactionThatIsNotCommittedIsRolledBack) {
    Storage storage = Opened();
    {
        auto transaction = storage.Begin().Value();
        transaction.Insert("gone").Value();
    }
    EXPECT_EQ(storage.NextRev().Value(), 1);
    {
        auto transaction = storage.Begin().Value();
        EXPECT_EQ(transaction.Insert("stays").Value(), 1);
        EXPECT_EQ(transaction.InsertAt(10, BytesOf("under its own revision")).Value(), 10);
        EXPECT_TRUE(transaction.Commit());
    }
    EXPECT_EQ(RevsOf(storage, kFirstRev, kLastRev), (Revs{1, 10}));
}

TEST_F(ClientStorage, AnEndedTransactionTakesNothing) {
    Storage storage = Opened();
    auto transaction = storage.Begin().Value();
    EXPECT_TRUE(transaction.Rollback());
    EXPECT_EQ(transaction.Rollback().Code(), RC_NO_TRANSACTION_TO_ROLLBACK);
    EXPECT_EQ(transaction.Commit().Code(), RC_NO_TRANSACTION);
    EXPECT_EQ(transaction.Insert("late").Code(), RC_WRONG_STATE);
    EXPECT_EQ(storage.NextRev().Value(), 1);
}

TEST_F(ClientStorage, ATransactionCanBeHandedOn) {
    Storage storage = Opened();
    auto first = storage.Begin().Value();
    first.Insert("one").Value();
    Storage moved = std::move(storage);  // the transaction goes on
    auto second = std::move(first);
    second.Insert("two").Value();
    EXPECT_TRUE(second.Commit());
    EXPECT_EQ(RevsOf(moved, kFirstRev, kLastRev), (Revs{1, 2}));
}

TEST_F(ClientStorage, ARecordThatDoesNotFitIsRefused) {
    Storage storage = Opened();
    EXPECT_EQ(storage.Insert(std::string(4096, 'x')).Code(), RC_INVALID_ARG);
    EXPECT_EQ(storage.Insert("").Value(), 1);
}

TEST_F(ClientStorage, AVisitorEndsTheEnumeration) {
    Storage storage = Opened();
    for (const char* const text : {"a", "b", "c"}) {
        storage.Insert(text).Value();
    }
    Revs seen;
    EXPECT_TRUE(storage.Enumerate(kFirstRev, kLastRev, [&](const Record& record) {
        seen.push_back(record.rev);
        return record.rev < 2;
    }));
    EXPECT_EQ(seen, (Revs{1, 2}));
}

TEST_F(ClientStorage, WhatAVisitorThrowsReachesTheCaller) {
    Storage storage = Opened();
    storage.Insert("a").Value();
    EXPECT_THROW((void)storage.Enumerate(kFirstRev, kLastRev,
                                         [](const Record&) { throw std::out_of_range("visitor"); }),
                 std::out_of_range);
    EXPECT_EQ(storage.Insert("the storage goes on").Value(), 2);
}

TEST_F(ClientStorage, ClearsAndMarks) {
    Storage storage = Opened();
    for (int i = 0; i < 5; ++i) {
        storage.Insert("record").Value();
    }
    EXPECT_TRUE(storage.ClearOld(3));
    EXPECT_EQ(RevsOf(storage, kFirstRev, kLastRev), (Revs{3, 4, 5}));
    EXPECT_TRUE(storage.ClearOld(4, ClearMode::kMark));
    EXPECT_EQ(storage.RevisionMark().Value(), 4);
    EXPECT_TRUE(storage.ClearOld(4, ClearMode::kSqueezeBackup));
    EXPECT_TRUE(std::filesystem::exists(Path() + ".backup"));
    EXPECT_TRUE(storage.SetLifenum(9));
    EXPECT_EQ(storage.Lifenum().Value(), 9U);
    EXPECT_TRUE(storage.ClearAll());
    EXPECT_TRUE(RevsOf(storage, kFirstRev, kLastRev).empty());
    EXPECT_EQ(storage.NextRev().Value(), 6);
    EXPECT_TRUE(storage.Truncate());
    EXPECT_EQ(storage.NextRev().Value(), 1);
}

TEST_F(ClientStorage, NotifiesOfFlushes) {
    Revs flushed;
    Revs written;
    auto onFlush = [&](std::int64_t lastRev) { flushed.push_back(lastRev); };
    auto onWrite = [&](std::int64_t lastRev) { written.push_back(lastRev); };
    Storage::Create(InFile()).Value();
    Storage storage = Storage::OpenUnloaded(InFile()).Value();
    storage.SetOnFlush(onFlush).Value();
    storage.SetOnWriteToFile(onWrite).Value();
    storage.Load().Value();
    storage.Insert("a").Value();
    storage.Insert("b").Value();
    EXPECT_EQ(flushed, (Revs{1, 2}));
    EXPECT_EQ(written, (Revs{1, 2}));
}

TEST_F(ClientStorage, ADuplicateKeepsTheStorageOpen) {
    Storage copy = [this] {
        Storage storage = Opened();
        storage.Insert("a").Value();
        return storage.Duplicate().Value();
    }();
    EXPECT_EQ(copy.Insert("b").Value(), 2);
    EXPECT_EQ(Storage::Open(InFile()).Code(), RC_SYSTEM_ERROR);  // it has its one writer
    Storage reader = Storage::Open(InFile().ReadOnly()).Value();
    EXPECT_EQ(RevsOf(reader, kFirstRev, kLastRev), (Revs{1, 2}));
}

}  // namespace

}  // namespace k9erepl::test
