// A client whose records have a pattern; see the header.
#include "portability/portable.h"

#include <cstring>

namespace k9erepl::portable {
namespace {

u8 PatternByte(i64 rev, u32 index) {
    return static_cast<u8>(static_cast<u64>(rev) * 31 + u64{index} * 7 + (index >> 8));
}

u32 UserWordOf(i64 rev) {
    return static_cast<u32>(static_cast<u64>(rev) * 2654435761U);
}

std::vector<u8> RecordOf(const PlannedRecord& planned) {
    const K9eReplRec head{
        .rev = planned.rev, .userWord = UserWordOf(planned.rev), .dataSize = planned.dataSize};
    std::vector<u8> bytes(sizeof head + planned.dataSize);
    std::memcpy(bytes.data(), &head, sizeof head);
    for (u32 i = 0; i < planned.dataSize; ++i) {
        bytes[sizeof head + i] = PatternByte(planned.rev, i);
    }
    return bytes;
}

struct Reading {
    PlannedRecords records;
    bool isPattern = true;
};

// An exception must not pass the library: what is wrong is noted.
u32 K9EREPL_CALL TakeRecord(const K9eReplRec* rec, void* context) {
    auto& reading = *static_cast<Reading*>(context);
    const PlannedRecord planned{.rev = rec->rev, .dataSize = rec->dataSize};
    const std::vector<u8> expected = RecordOf(planned);
    reading.isPattern =
        reading.isPattern && std::memcmp(rec, expected.data(), expected.size()) == 0;
    reading.records.push_back(planned);
    return RC_OK;
}

}  // namespace

void Require(u32 code, const char* what) {
    if (code != RC_OK) {
        throw Failure(std::string(what) + " answers " + std::to_string(code));
    }
}

Client::Client(const std::string& connString) {
    Require(K9eReplStorageOpen(connString.c_str(), &m_handle), "Open");
    if (const u32 rc = K9eReplStorageLoad(m_handle); rc != RC_OK) {
        K9eReplStorageClose(m_handle);
        Require(rc, "Load");
    }
}

void Client::Begin() {
    Require(K9eReplStorageBeginTransaction(m_handle), "BeginTransaction");
}

void Client::Commit() {
    Require(K9eReplStorageCommit(m_handle), "Commit");
}

void Client::Rollback() {
    Require(K9eReplStorageRollback(m_handle), "Rollback");
}

void Client::Insert(u32 dataSize, int count) {
    for (int i = 0; i < count; ++i) {
        std::vector<u8> bytes = RecordOf({.rev = NextRev(), .dataSize = dataSize});
        auto* record = reinterpret_cast<K9eReplRec*>(bytes.data());
        record->rev = 0;
        Require(K9eReplStorageInsert(m_handle, record), "Insert");
    }
}

void Client::InsertAs(i64 rev, u32 dataSize) {
    std::vector<u8> bytes = RecordOf({.rev = rev, .dataSize = dataSize});
    Require(K9eReplStorageInsertP(m_handle, reinterpret_cast<K9eReplRec*>(bytes.data())),
            "InsertP");
}

void Client::Clear(i64 rev, u32 mode) {
    Require(K9eReplStorageClearOldRev(m_handle, rev, mode), "ClearOldRev");
}

void Client::SetLifenum(u32 lifenum) {
    Require(K9eReplStorageSetLifenum(m_handle, lifenum), "SetLifenum");
}

i64 Client::NextRev() const {
    i64 rev = 0;
    Require(K9eReplStorageGetNextRev(m_handle, &rev), "GetNextRev");
    return rev;
}

u32 Client::Lifenum() const {
    u32 lifenum = 0;
    Require(K9eReplStorageGetLifenum(m_handle, &lifenum), "GetLifenum");
    return lifenum;
}

i64 Client::RevisionMark() const {
    i64 mark = 0;
    Require(K9eReplStorageGetClearOldRev(m_handle, &mark), "GetClearOldRev");
    return mark;
}

PlannedRecords Client::Records(i64 fromRev, i64 toRev) const {
    Reading reading;
    Require(K9eReplStorageEnumRecords(m_handle, fromRev, toRev, &TakeRecord, &reading),
            "EnumRecords");
    if (!reading.isPattern) {
        throw Failure("a record has other bytes than were inserted");
    }
    return reading.records;
}

LastCommit Client::ScanForLastCommit() const {
    void* file = nullptr;
    Require(K9eReplStorageGetLLStorage(m_handle, &file), "GetLLStorage");
    LastCommit last;
    Require(static_cast<IK9eReplLLStorage*>(file)->ScanFile(
                [](std::uint64_t, const K9eReplRec*, void*) -> std::uint32_t { return RC_OK; },
                [](void* ctx, std::int64_t clearRev, std::int64_t commitRev) -> std::uint32_t {
                    *static_cast<LastCommit*>(ctx) = {clearRev, commitRev};
                    return RC_OK;
                },
                &last),
            "ScanFile");
    return last;
}

}  // namespace k9erepl::portable
