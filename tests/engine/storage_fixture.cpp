// The vocabulary of the engine's tests; see the header.
#include "engine/storage_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <mutex>

#include "support/file_bytes.h"
#include "support/params.h"

namespace k9erepl::test {

Record::Record(std::string_view data, u32 userWord, i64 rev)
    : m_bytes(sizeof(K9eReplRec) + data.size()) {
    Get()->rev = rev;
    Get()->userWord = userWord;
    Get()->dataSize = static_cast<u32>(data.size());
    std::memcpy(Get()->data, data.data(), data.size());
}

std::ostream& operator<<(std::ostream& out, const SeenRecord& record) {
    return out << record.rev << '/' << record.userWord << '/' << record.data;
}

u32 K9EREPL_CALL CollectRecord(const K9eReplRec* rec, void* records) {
    const auto* data = reinterpret_cast<const char*>(rec->data);
    static_cast<SeenRecords*>(records)->push_back(
        {rec->rev, rec->userWord, std::string(data, rec->dataSize)});
    return RC_OK;
}

TestStorage::TestStorage(std::string_view settings, Start start) : m_settings(settings) {
    if (start == Start::kNothing) {
        return;
    }
    EXPECT_EQ(TryCreate(), RC_OK);
    if (start != Start::kCreated) {
        EXPECT_EQ(TryOpen(), RC_OK);
    }
    if (start == Start::kLoaded) {
        EXPECT_EQ(TryLoad(), RC_OK);
    }
}

TestStorage::~TestStorage() {
    if (IsOpen()) {
        Close();
    }
}

std::string TestStorage::ConnStr() const {
    u32 length = 0;
    const bool namesFile = FindParam(m_settings.c_str(), "file", &length) != nullptr;
    return namesFile ? m_settings : "file=" + Path() + ";" + m_settings + ";" + WriterSetting();
}

u32 TestStorage::TryCreate(u32 flags) {
    return K9eReplStorageCreate(ConnStr().c_str(), flags);
}

u32 TestStorage::TryOpen() {
    EXPECT_FALSE(IsOpen());
    return K9eReplStorageOpen(ConnStr().c_str(), &m_handle);
}

u32 TestStorage::TryLoad() {
    return K9eReplStorageLoad(m_handle);
}

u32 TestStorage::TryOpenAndLoad() {
    const u32 rc = TryOpen();
    return rc == RC_OK ? TryLoad() : rc;
}

void TestStorage::Close() {
    EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK);
    m_handle = nullptr;
}

void TestStorage::Reopen() {
    Close();
    ASSERT_EQ(TryOpenAndLoad(), RC_OK);
}

void TestStorage::Reopen(std::string_view settings) {
    Use(settings);
    Reopen();
}

CK9eReplStorage& TestStorage::Object() const {
    return static_cast<CK9eReplStorage&>(*static_cast<IK9eReplStorage*>(m_handle));
}

IK9eReplDS& TestStorage::DataSource() const {
    return Object();
}

u32 TestStorage::WaitForWriter() const {
    if (!IsOpen()) {
        return RC_OK;
    }
    const std::lock_guard guard(StorageAccess::Lock(Object()));
    return Object().SolidStorage().CompleteAsyncTasks();
}

void TestStorage::Settle() {
    EXPECT_EQ(WaitForWriter(), RC_OK);
    const std::lock_guard guard(StorageAccess::Lock(Object()));
    EXPECT_EQ(StorageAccess::ShrinkCache(Object()), RC_OK);
}

u32 TestStorage::Begin() {
    return K9eReplStorageBeginTransaction(m_handle);
}

u32 TestStorage::Commit() {
    return K9eReplStorageCommit(m_handle);
}

u32 TestStorage::Rollback() {
    return K9eReplStorageRollback(m_handle);
}

u32 TestStorage::Insert(std::string_view data, u32 userWord) {
    Record record(data, userWord);
    return K9eReplStorageInsert(m_handle, record.Get());
}

u32 TestStorage::InsertP(i64 rev, std::string_view data, u32 userWord) {
    Record record(data, userWord, rev);
    return K9eReplStorageInsertP(m_handle, record.Get());
}

void TestStorage::InsertCommitted(std::initializer_list<std::string_view> data) {
    ASSERT_EQ(Begin(), RC_OK);
    for (const std::string_view text : data) {
        ASSERT_EQ(Insert(text), RC_OK);
    }
    ASSERT_EQ(Commit(), RC_OK);
}

void TestStorage::InsertMany(u32 count, std::string_view prefix) {
    for (const std::string& text : Numbered(count, prefix)) {
        ASSERT_EQ(Insert(text), RC_OK);
    }
}

u32 TestStorage::Clear(i64 rev, u32 mode) {
    return K9eReplStorageClearOldRev(m_handle, rev, mode);
}

u32 TestStorage::ClearAll(u32 mode) {
    return K9eReplStorageClearAll(m_handle, mode);
}

u32 TestStorage::Truncate() {
    return K9eReplStorageTruncate(m_handle);
}

u32 TestStorage::Enumerate(SeenRecords* records, i64 fromRev, i64 toRev) {
    return K9eReplStorageEnumRecords(m_handle, fromRev, toRev, CollectRecord, records);
}

SeenRecords TestStorage::Records(i64 fromRev, i64 toRev) {
    SeenRecords records;
    EXPECT_EQ(Enumerate(&records, fromRev, toRev), RC_OK);
    return records;
}

Strings TestStorage::Texts(i64 fromRev, i64 toRev) {
    Strings texts;
    for (SeenRecord& record : Records(fromRev, toRev)) {
        texts.push_back(std::move(record.data));
    }
    return texts;
}

i64 TestStorage::NextRev() {
    i64 rev = 0;
    EXPECT_EQ(K9eReplStorageGetNextRev(m_handle, &rev), RC_OK);
    return rev;
}

i64 TestStorage::FirstRev() {
    i64 rev = 0;
    EXPECT_EQ(DataSource().GetFirstRev(0, &rev), RC_OK);
    return rev;
}

i64 TestStorage::RevisionMark() {
    i64 rev = -1;
    EXPECT_EQ(K9eReplStorageGetClearOldRev(m_handle, &rev), RC_OK);
    return rev;
}

u32 TestStorage::Lifenum() {
    u32 lifenum = 0;
    EXPECT_EQ(K9eReplStorageGetLifenum(m_handle, &lifenum), RC_OK);
    return lifenum;
}

std::vector<u8> FileBytes(const TestStorage& storage) {
    storage.WaitForWriter();
    return ReadBytes(storage.Path());
}

Strings Numbered(u32 count, std::string_view prefix) {
    Strings texts;
    for (u32 n = 1; n <= count; ++n) {
        texts.push_back(std::string(prefix) + std::to_string(n));
    }
    return texts;
}

}  // namespace k9erepl::test
