// The shared library from outside: its functions in C, their null pointers, what a failure leaves.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <cstdint>

extern "C" const char* UseEverything(void);  // of c99_client.c

namespace {

constexpr const char* kInMemory = "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:";

// A loaded storage in memory.
class Client : public ::testing::Test {
  protected:
    Client() {
        EXPECT_EQ(K9eReplStorageOpen(kInMemory, &handle), RC_OK);
        EXPECT_EQ(K9eReplStorageLoad(handle), RC_OK);
    }
    ~Client() override { EXPECT_EQ(K9eReplStorageClose(handle), RC_OK); }

    void* handle = nullptr;
    // A record without data.
    alignas(K9eReplRec) unsigned char recordBytes[sizeof(K9eReplRec)] = {};
    K9eReplRec* const record = reinterpret_cast<K9eReplRec*>(recordBytes);
};

std::uint32_t K9EREPL_CALL Stop(const K9eReplRec* /*rec*/, void* /*cbContext*/) {
    return 1;
}

TEST_F(Client, WrittenInC99UsesEveryFunction) {
    EXPECT_STREQ(UseEverything(), nullptr);
}

TEST_F(Client, NullHandlesAreRefusedByEveryFunction) {
    std::int64_t rev = 0;
    std::uint32_t lifenum = 0;
    void* out = nullptr;
    EXPECT_EQ(K9eReplStorageClose(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageDuplicateHandle(nullptr, &out), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageLoad(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageTruncate(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageBeginTransaction(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageCommit(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageRollback(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsert(nullptr, record), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsertP(nullptr, record), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageEnumRecords(nullptr, 0, 1, Stop, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageSetLifenum(nullptr, 1), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetLifenum(nullptr, &lifenum), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetNextRev(nullptr, &rev), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageClearOldRev(nullptr, 1, 0), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetClearOldRev(nullptr, &rev), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageClearAll(nullptr, 0), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageSetOnFlushCallback(nullptr, nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageSetOnWriteToFileCallback(nullptr, nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetLLStorage(nullptr, &out), RC_INVALID_ARG);
    EXPECT_EQ(out, nullptr);
}

TEST_F(Client, NullArgumentsAreRefusedByEveryFunction) {
    void* out = nullptr;
    EXPECT_EQ(K9eReplStorageCreate(nullptr, 0), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageDelete(nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageOpen(nullptr, &out), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageOpen(kInMemory, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageDuplicateHandle(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsert(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageInsertP(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetLifenum(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetNextRev(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetClearOldRev(handle, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageGetLLStorage(handle, nullptr), RC_INVALID_ARG);
}

TEST_F(Client, ANullEnumerationCallbackMattersOnlyWhenARecordComes) {
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 0, 9, nullptr, nullptr), RC_OK);
    ASSERT_EQ(K9eReplStorageInsert(handle, record), RC_OK);
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 2, 9, nullptr, nullptr), RC_OK);
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 1, 9, nullptr, nullptr), RC_INVALID_ARG);
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 1, 9, Stop, nullptr), 1U);
}

TEST_F(Client, OutPointersAreWrittenOnSuccessOnly) {
    int marker = 0;
    void* out = &marker;
    EXPECT_EQ(K9eReplStorageOpen("cache_type=Last0", &out), RC_INVALID_ARG);
    EXPECT_EQ(out, &marker);
    EXPECT_EQ(K9eReplStorageGetLLStorage(handle, &out), RC_FILE_NOT_OPEN);
    EXPECT_EQ(out, &marker);
}

TEST_F(Client, ClearAllOfAStorageThatIsNotLoadedAnswersAsClearOldRevDoes) {
    void* closed = nullptr;
    ASSERT_EQ(K9eReplStorageOpen(kInMemory, &closed), RC_OK);
    EXPECT_EQ(K9eReplStorageClearAll(closed, 0), K9eReplStorageClearOldRev(closed, 1, 0));
    EXPECT_EQ(K9eReplStorageClose(closed), RC_OK);
}

TEST(ClientRecord, MayLieAnywhere) {
    static_assert(sizeof(K9eReplRec) == 16);
    static_assert(alignof(K9eReplRec) == 1);
    alignas(8) unsigned char memory[64] = {};
    auto* rec = reinterpret_cast<K9eReplRec*>(memory + 1);
    rec->rev = 0x0102030405060708;
    EXPECT_EQ(memory[1], 8);
    EXPECT_EQ(memory[8], 1);
}

}  // namespace
