// What the portable storages hold, and how they are written; see the header.
#include "portability/portable_contents.h"

#include <filesystem>

namespace k9erepl::portable {
namespace {

// Nothing happens by time alone: what is written must not depend on how fast.
constexpr const char* kEachCommit =
    "block_size=512;cache_type=Last2;flush_mode=PerTrans;flush_trans_num=1;"
    "flush_timeout=3600000;read_buffers_count=1;index_hint=1000000;";
constexpr const char* kByData =
    "block_size=512;cache_type=Last2;flush_mode=PerData;flush_data_size=600;"
    "flush_timeout=3600000;read_buffers_count=1;index_hint=1000000;";

constexpr u32 kLargestData = 512 - 24;
constexpr u32 kEvenData = 100;  // four of these share a block
constexpr i64 kFarRev = i64{1} << 62;

void Create(const std::string& connString) {
    Require(K9eReplStorageCreate(connString.c_str(), 0), "Create");
}

void InsertEven(Client& client, int count) {
    for (int i = 0; i < count; ++i) {
        client.Insert(kEvenData);
    }
}

void InsertNested(Client& client) {
    client.Begin();
    client.Insert(3);
    client.Begin();
    client.Insert(0);
    client.Begin();
    client.Insert(200);
    client.Commit();
    client.Commit();
    client.Insert(255);
    client.Commit();
}

void WriteSizes(const std::string& connString) {
    Create(connString);
    Client client(connString);
    client.Begin();
    client.Insert(0);
    client.Insert(1);
    client.Insert(77);
    client.Commit();
    client.Insert(kLargestData);
    InsertNested(client);
    client.Begin();
    client.Insert(40);
    client.Insert(kLargestData);
    client.Rollback();
    client.Insert(kLargestData - 1);
    client.Begin();
    client.Commit();
    client.Insert(kLargestData - 2);
}

PlannedRecords Sizes() {
    return {{1, 0}, {2, 1},   {3, 77},  {4, kLargestData},     {5, 3},
            {6, 0}, {7, 200}, {8, 255}, {9, kLargestData - 1}, {10, kLargestData - 2}};
}

PlannedRecords Prepared() {
    return {{5, 10},         {6, 0},          {100, 33},          {0x7FFFFFFF, 1},
            {0x80000000, 2}, {0xFFFFFFFF, 3}, {0x100000005, 100}, {i64{1} << 40, 7},
            {kFarRev, 9}};
}

void WriteGaps(const std::string& connString) {
    Create(connString);
    Client client(connString);
    Require(K9eReplStorageSetLifenum(client.Handle(), 0xFFFFFFFE), "SetLifenum");
    for (const PlannedRecord& record : Prepared()) {
        client.InsertAs(record.rev, record.dataSize);
    }
    client.Insert(11);
    client.Clear(0x200000000, K9EREPL_CLEAR_MARK);
}

PlannedRecords Gaps() {
    PlannedRecords records = Prepared();
    records.push_back({kFarRev + 1, 11});
    return records;
}

void WriteGrouped(const std::string& connString) {
    Create(connString);
    Client client(connString);
    for (int transaction = 0; transaction < 5; ++transaction) {
        client.Begin();
        InsertEven(client, 3);
        client.Commit();
    }
}

void WriteCleared(const std::string& connString) {
    Create(connString);
    Client client(connString);
    InsertEven(client, 12);
    client.Clear(6, K9EREPL_CLEAR_LOGICAL);
    InsertEven(client, 2);
    client.Clear(8, K9EREPL_CLEAR_LOGICAL);
}

void WriteSqueezed(const std::string& connString) {
    Create(connString);
    Client client(connString);
    Require(K9eReplStorageSetLifenum(client.Handle(), 77), "SetLifenum");
    InsertEven(client, 12);
    client.Clear(7, K9EREPL_CLEAR_SQUEEZE_BACKUP);
    InsertEven(client, 2);
}

void WriteTruncated(const std::string& connString) {
    Create(connString);
    Client client(connString);
    Require(K9eReplStorageSetLifenum(client.Handle(), 78), "SetLifenum");
    InsertEven(client, 6);
    Require(K9eReplStorageTruncate(client.Handle()), "Truncate");
    InsertEven(client, 3);
}

void WriteEmptied(const std::string& connString) {
    Create(connString);
    Client client(connString);
    Require(K9eReplStorageSetLifenum(client.Handle(), 79), "SetLifenum");
    InsertEven(client, 6);
    Require(K9eReplStorageClearAll(client.Handle(), K9EREPL_CLEAR_LOGICAL), "ClearAll");
}

PlannedRecords Even(i64 fromRev, i64 toRev) {
    PlannedRecords records;
    for (i64 rev = fromRev; rev <= toRev; ++rev) {
        records.push_back({rev, kEvenData});
    }
    return records;
}

// The content as both writers write it.
void AddBoth(std::vector<Content>& contents, const Content& content) {
    contents.push_back(content);
    contents.back().fileName += ".edb";
    contents.push_back(content);
    contents.back().fileName += "_async.edb";
    contents.back().settings += "async_mode=yes;async_buffer_size=1;";
}

std::vector<Content> MakeContents() {
    std::vector<Content> all;
    AddBoth(all, {.fileName = "sizes",
                  .settings = kEachCommit,
                  .write = &WriteSizes,
                  .records = Sizes(),
                  .nextRev = 11,
                  .indexEntries = 6});
    AddBoth(all, {.fileName = "gaps",
                  .settings = kEachCommit,
                  .write = &WriteGaps,
                  .records = Gaps(),
                  .nextRev = kFarRev + 2,
                  .lifenum = 0xFFFFFFFE,
                  .mark = 0x200000000,
                  .indexEntries = 1});
    AddBoth(all, {.fileName = "grouped",
                  .settings = kByData,
                  .write = &WriteGrouped,
                  .records = Even(1, 15),
                  .nextRev = 16,
                  .indexEntries = 4});
    AddBoth(all, {.fileName = "cleared",
                  .settings = kEachCommit,
                  .write = &WriteCleared,
                  .records = Even(8, 14),
                  .nextRev = 15,
                  .clearRev = 8,
                  .indexEntries = 3});
    AddBoth(all, {.fileName = "squeezed",
                  .settings = kEachCommit,
                  .write = &WriteSqueezed,
                  .records = Even(7, 14),
                  .nextRev = 15,
                  .clearRev = 7,
                  .lifenum = 77,
                  .indexEntries = 2});
    for (const char* const backup : {"squeezed.edb.backup", "squeezed_async.edb.backup"}) {
        all.push_back({.fileName = backup,
                       .settings = kEachCommit,
                       .records = Even(1, 12),
                       .nextRev = 13,
                       .lifenum = 77});
    }
    AddBoth(all, {.fileName = "truncated",
                  .settings = kEachCommit,
                  .write = &WriteTruncated,
                  .records = Even(1, 3),
                  .nextRev = 4,
                  .indexEntries = 1});
    AddBoth(all, {.fileName = "emptied",
                  .settings = kEachCommit,
                  .write = &WriteEmptied,
                  .nextRev = 7,
                  .clearRev = 6,
                  .lifenum = 79,
                  .indexEntries = 0});
    return all;
}

}  // namespace

const std::vector<Content>& Contents() {
    static const std::vector<Content> contents = MakeContents();
    return contents;
}

std::vector<std::string> FileNames() {
    std::vector<std::string> names;
    for (const Content& content : Contents()) {
        names.push_back(content.fileName);
        if (content.indexEntries) {
            names.push_back(content.fileName + "-idx");
        }
    }
    return names;
}

void WriteAll(const std::string& folder) {
    for (const Content& content : Contents()) {
        if (content.write == nullptr) {
            continue;
        }
        const std::string path = folder + "/" + content.fileName;
        const std::string connString = "file=" + path + ";" + content.settings;
        try {
            content.write(connString);
            // A clear leaves the index as far as its thread has come; a load from the beginning
            // makes the one that follows from the file.
            std::filesystem::remove(path + "-idx");
            const Client savesTheIndex(connString);
        } catch (const Failure& failure) {
            throw Failure(content.fileName + ": " + failure.what());
        }
    }
}

}  // namespace k9erepl::portable
