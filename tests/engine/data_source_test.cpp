// The storage as a source of data for other components: identity, queries, what it refuses.
#include <gtest/gtest.h>

#include <algorithm>

#include "engine/flush_fixture.h"

namespace k9erepl::test {

TEST(DataSource, IsHandedOutWithoutAReference) {
    TestStorage storage;
    IK9eReplDS* source = nullptr;
    IK9eReplStorage& object = storage.Object();
    ASSERT_EQ(object.GetDS(&source), RC_OK);
    EXPECT_EQ(source, &storage.DataSource());
    EXPECT_EQ(source->AddRef(), 2U);
    EXPECT_EQ(source->Release(), 1U);
    EXPECT_EQ(object.GetDS(nullptr), RC_INVALID_ARG);
}

TEST(DataSource, IsTheSameAsItsOwnPointerOnly) {
    TestStorage storage;
    IK9eReplDS& source = storage.DataSource();
    EXPECT_TRUE(source.IsSame(&source));
    EXPECT_FALSE(source.IsSame(storage.Handle()));
    EXPECT_FALSE(source.IsSame(nullptr));
}

TEST(DataSource, LiesOnePointerBehindTheHandle) {
    TestStorage storage;
    const auto* handle = static_cast<const unsigned char*>(storage.Handle());
    const auto* source = reinterpret_cast<const unsigned char*>(&storage.DataSource());
    EXPECT_EQ(source - handle, static_cast<std::ptrdiff_t>(sizeof(void*)));
}

TEST(DataSource, EnumFromDeliversToTheEnd) {
    TestStorage storage;
    storage.InsertCommitted({"one", "two", "three"});
    SeenRecords seen;
    EXPECT_EQ(storage.DataSource().EnumFrom(1, 2, 3, 2, 4, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen, SeenRecords({{2, 0, "two"}, {3, 0, "three"}}));
}

TEST(DataSource, EnumFromPassesTheCallbacksResultOn) {
    TestStorage storage;
    storage.InsertCommitted({"one"});
    const auto stop = [](const K9eReplRec*, void*) -> std::uint32_t { return 99; };
    EXPECT_EQ(storage.DataSource().EnumFrom(0, 0, 0, 1, 0, stop, nullptr), 99U);
}

TEST(DataSource, TheFirstRevisionOfAnEmptyStorageIs1) {
    TestStorage storage;
    i64 rev = 0;
    EXPECT_EQ(storage.DataSource().GetFirstRev(0, &rev), RC_OK);
    EXPECT_EQ(rev, 1);
}

TEST(DataSource, FirstAndLastRevisionFollowTheContent) {
    TestStorage storage;
    ASSERT_EQ(storage.InsertP(7, "seven"), RC_OK);
    ASSERT_EQ(storage.Insert("eight"), RC_OK);
    i64 first = 0;
    i64 last = 0;
    EXPECT_EQ(storage.DataSource().GetFirstRev(0, &first), RC_OK);
    EXPECT_EQ(storage.DataSource().GetLastRev(0, &last), RC_OK);
    EXPECT_EQ(first, 7);
    EXPECT_EQ(last, 9) << "the next one to be assigned";
}

TEST(DataSource, FirstAndLastRevisionWantAnOpenStorage) {
    TestStorage storage("", Start::kOpened);
    i64 rev = 55;
    EXPECT_EQ(storage.DataSource().GetFirstRev(0, &rev), 0x8034U);
    EXPECT_EQ(storage.DataSource().GetLastRev(0, &rev), 0x8034U);
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    EXPECT_EQ(storage.DataSource().GetFirstRev(0, &rev), 0x8034U);
    EXPECT_EQ(rev, 55);
}

TEST(DataSource, RefusesNullPointers) {
    TestStorage storage;
    EXPECT_EQ(storage.DataSource().GetFirstRev(0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(storage.DataSource().GetLastRev(0, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(storage.DataSource().GetClearRev(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(storage.DataSource().GetFlag(0, nullptr), RC_INVALID_ARG);
}

TEST(DataSource, ItsOtherOperationsDoNothing) {
    TestStorage storage;
    IK9eReplDS& source = storage.DataSource();
    EXPECT_EQ(source.Reserved3(1), RC_OK);
    EXPECT_EQ(source.Reserved4(1), RC_OK);
    EXPECT_EQ(source.Reserved5(1), RC_NOT_SUPPORTED);
    EXPECT_EQ(source.Reserved12(1, 2), RC_NOT_SUPPORTED);
    EXPECT_EQ(source.Reserved13(1, 2, 3), RC_NOT_SUPPORTED);
    u8 flag = 9;
    EXPECT_EQ(source.GetFlag(1, &flag), RC_OK);
    EXPECT_EQ(flag, 0);
}

}  // namespace k9erepl::test
