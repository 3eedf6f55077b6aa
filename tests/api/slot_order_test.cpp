// The order of the virtual operations, which hosts compiled elsewhere rely on: each is called by
// its number through the tables of the object, as the compiler's C++ ABI lays them out.
#include <gtest/gtest.h>

#include <cstdint>

#include "engine/flush_fixture.h"
#include "member_calls.h"  // in posix/ and in windows/

namespace k9erepl::test {
namespace {

struct StorageSlots {
    void* destructor[kDestructorSlots];
    u32(K9EREPL_MEMBER* setLifenum)(void*, u32);
    u32(K9EREPL_MEMBER* getLifenum)(void*, u32*);
    u32(K9EREPL_MEMBER* load)(void*);
    u32(K9EREPL_MEMBER* truncate)(void*);
    u32(K9EREPL_MEMBER* beginTransaction)(void*);
    u32(K9EREPL_MEMBER* commit)(void*);
    u32(K9EREPL_MEMBER* rollback)(void*);
    u32(K9EREPL_MEMBER* insert)(void*, K9eReplRec*);
    u32(K9EREPL_MEMBER* insertP)(void*, K9eReplRec*);
    u32(K9EREPL_MEMBER* enumRecords)(void*, i64, i64, K9eReplEnumCb, void*);
    u32(K9EREPL_MEMBER* clearOldRev)(void*, i64, u32);
    u32(K9EREPL_MEMBER* getClearOldRev)(void*, i64*);
    u32(K9EREPL_MEMBER* getNextRev)(void*, i64*);
    u32(K9EREPL_MEMBER* getDS)(void*, void**);
    u32(K9EREPL_MEMBER* setOnFlushCallback)(void*, K9eReplFlushCb, void*);
    u32(K9EREPL_MEMBER* setOnWriteToFileCallback)(void*, K9eReplFlushCb, void*);
};

struct DataSourceSlots {
    void* destructor[kDestructorSlots];
    u32(K9EREPL_MEMBER* addRef)(void*);
    u32(K9EREPL_MEMBER* release)(void*);
    u32(K9EREPL_MEMBER* reserved3)(void*, std::uintptr_t);
    u32(K9EREPL_MEMBER* reserved4)(void*, std::uintptr_t);
    u32(K9EREPL_MEMBER* reserved5)(void*, std::uintptr_t);
    bool(K9EREPL_MEMBER* isSame)(void*, const void*);
    u32(K9EREPL_MEMBER* enumFrom)(void*, u32, u32, u32, i64, u32, K9eReplEnumCb, void*);
    u32(K9EREPL_MEMBER* getFirstRev)(void*, u32, i64*);
    u32(K9EREPL_MEMBER* getLastRev)(void*, u32, i64*);
    u32(K9EREPL_MEMBER* getClearRev)(void*, i64*);
    u32(K9EREPL_MEMBER* getFlag)(void*, u32, u8*);
    u32(K9EREPL_MEMBER* reserved12)(void*, std::uintptr_t, std::uintptr_t);
    u32(K9EREPL_MEMBER* reserved13)(void*, std::uintptr_t, std::uintptr_t, std::uintptr_t);
    u32(K9EREPL_MEMBER* flushOnIdle)(void*);
};

// The table of the interface at `object`.
template <typename Slots>
const Slots& SlotsOf(void* object) {
    return **static_cast<const Slots**>(object);
}

class SlotOrder : public ::testing::Test {
  protected:
    SlotOrder() : storage(kFlushNever) { StorageAccess::ClearMark(storage.Object()) = 77; }

    TestStorage storage;
    void* const handle = storage.Handle();
    const StorageSlots& slots = SlotsOf<StorageSlots>(handle);
    void* const source = static_cast<unsigned char*>(handle) + sizeof(void*);
    const DataSourceSlots& sourceSlots = SlotsOf<DataSourceSlots>(source);
};

TEST_F(SlotOrder, OfTheTransactions) {
    Record record("text");
    EXPECT_EQ(slots.beginTransaction(handle), RC_OK);
    EXPECT_EQ(slots.insert(handle, record.Get()), RC_OK);
    EXPECT_EQ(record->rev, 1);
    EXPECT_EQ(slots.commit(handle), RC_OK);
    EXPECT_EQ(slots.commit(handle), RC_NO_TRANSACTION);
    EXPECT_EQ(slots.rollback(handle), RC_NO_TRANSACTION_TO_ROLLBACK);
    EXPECT_EQ(slots.insertP(handle, record.Get()), RC_INVALID_ARG) << "its revision is used";
    SeenRecords seen;
    EXPECT_EQ(slots.enumRecords(handle, 1, 1, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen, SeenRecords({{1, 0, "text"}}));
}

TEST_F(SlotOrder, OfTheOtherOperationsOfAStorage) {
    u32 lifenum = 0;
    i64 rev = 0;
    void* found = nullptr;
    EXPECT_EQ(slots.setLifenum(handle, 5), RC_OK);
    EXPECT_EQ(slots.getLifenum(handle, &lifenum), RC_OK);
    EXPECT_EQ(lifenum, 5U);
    EXPECT_EQ(slots.load(handle), RC_ALREADY);
    EXPECT_EQ(slots.getNextRev(handle, &rev), RC_OK);
    EXPECT_EQ(rev, 1);
    EXPECT_EQ(slots.getClearOldRev(handle, &rev), RC_OK);
    EXPECT_EQ(rev, 77);
    EXPECT_EQ(slots.clearOldRev(handle, 78, static_cast<u32>(ClearMode::kMark)), RC_OK);
    EXPECT_EQ(slots.getClearOldRev(handle, &rev), RC_OK);
    EXPECT_EQ(rev, 78);
    EXPECT_EQ(slots.truncate(handle), RC_OK);
    EXPECT_EQ(slots.getClearOldRev(handle, &rev), RC_OK);
    EXPECT_EQ(rev, 0) << "a truncation forgets it";
    EXPECT_EQ(slots.getDS(handle, &found), RC_OK);
    EXPECT_EQ(found, source);
}

TEST_F(SlotOrder, OfTheCallbackSetters) {
    Notified flushed;
    Notified written;
    EXPECT_EQ(slots.setOnFlushCallback(handle, &Notified::Call, &flushed), RC_OK);
    EXPECT_EQ(slots.setOnWriteToFileCallback(handle, &Notified::Call, &written), RC_OK);
    storage.InsertCommitted({"one"});
    EXPECT_EQ(written.Calls(), Revs());
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(flushed.Calls(), Revs({1}));
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    EXPECT_EQ(written.Calls(), Revs({1}));
    EXPECT_EQ(slots.setOnFlushCallback(handle, nullptr, nullptr), RC_OK);
    EXPECT_EQ(slots.setOnWriteToFileCallback(handle, nullptr, nullptr), RC_OK);
}

TEST_F(SlotOrder, OfTheReferences) {
    EXPECT_EQ(sourceSlots.addRef(source), 2U);
    EXPECT_EQ(sourceSlots.release(source), 1U);
    EXPECT_TRUE(sourceSlots.isSame(source, source));
    EXPECT_FALSE(sourceSlots.isSame(source, handle));
}

TEST_F(SlotOrder, OfTheQueries) {
    storage.InsertCommitted({"one", "two"});
    i64 rev = 0;
    u8 flag = 9;
    SeenRecords seen;
    EXPECT_EQ(sourceSlots.enumFrom(source, 0, 0, 0, 2, 0, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen.size(), 1U);
    EXPECT_EQ(sourceSlots.getFirstRev(source, 0, &rev), RC_OK);
    EXPECT_EQ(rev, 1);
    EXPECT_EQ(sourceSlots.getLastRev(source, 0, &rev), RC_OK);
    EXPECT_EQ(rev, 3);
    EXPECT_EQ(sourceSlots.getClearRev(source, &rev), RC_OK);
    EXPECT_EQ(rev, 77);
    EXPECT_EQ(sourceSlots.getFlag(source, 0, &flag), RC_OK);
    EXPECT_EQ(flag, 0);
}

TEST_F(SlotOrder, OfTheReservedOperationsAndTheIdleFlush) {
    EXPECT_EQ(sourceSlots.reserved3(source, 0), RC_OK);
    EXPECT_EQ(sourceSlots.reserved4(source, 0), RC_OK);
    EXPECT_EQ(sourceSlots.reserved5(source, 0), RC_NOT_SUPPORTED);
    EXPECT_EQ(sourceSlots.reserved12(source, 0, 0), RC_NOT_SUPPORTED);
    EXPECT_EQ(sourceSlots.reserved13(source, 0, 0, 0), RC_NOT_SUPPORTED);
    StorageAccess::SetState(storage.Object(), StorageState::kBroken);
    EXPECT_EQ(sourceSlots.flushOnIdle(source), RC_WRONG_STATE);
}

}  // namespace
}  // namespace k9erepl::test
