// What the portable storages hold, how they are written and how copies of them are checked; see the
// header.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "portability/portable.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

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

void WriteSizes(Client& client) {
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

// The last one comes behind the prepared ones.
PlannedRecords Gaps() {
    return {{5, 10},         {6, 0},           {100, 33},          {0x7FFFFFFF, 1},
            {0x80000000, 2}, {0xFFFFFFFF, 3},  {0x100000005, 100}, {i64{1} << 40, 7},
            {kFarRev, 9},    {kFarRev + 1, 11}};
}

void WriteGaps(Client& client) {
    client.SetLifenum(0xFFFFFFFE);
    for (const PlannedRecord& record : Gaps()) {
        if (record.rev <= kFarRev) {
            client.InsertAs(record.rev, record.dataSize);
        }
    }
    client.Insert(11);
    client.Clear(0x200000000, K9EREPL_CLEAR_MARK);
}

void WriteGrouped(Client& client) {
    for (int transaction = 0; transaction < 5; ++transaction) {
        client.Begin();
        client.Insert(kEvenData, 3);
        client.Commit();
    }
}

void WriteCleared(Client& client) {
    client.Insert(kEvenData, 12);
    client.Clear(6, K9EREPL_CLEAR_LOGICAL);
    client.Insert(kEvenData, 2);
    client.Clear(8, K9EREPL_CLEAR_LOGICAL);
}

void WriteSqueezed(Client& client) {
    client.SetLifenum(77);
    client.Insert(kEvenData, 12);
    client.Clear(7, K9EREPL_CLEAR_SQUEEZE_BACKUP);
    client.Insert(kEvenData, 2);
}

void WriteTruncated(Client& client) {
    client.SetLifenum(78);
    client.Insert(kEvenData, 6);
    Require(K9eReplStorageTruncate(client.Handle()), "Truncate");
    client.Insert(kEvenData, 3);
}

void WriteEmptied(Client& client) {
    client.SetLifenum(79);
    client.Insert(kEvenData, 6);
    Require(K9eReplStorageClearAll(client.Handle(), K9EREPL_CLEAR_LOGICAL), "ClearAll");
}

PlannedRecords Even(i64 fromRev, i64 toRev) {
    PlannedRecords records;
    for (i64 rev = fromRev; rev <= toRev; ++rev) {
        records.push_back({rev, kEvenData});
    }
    return records;
}

std::vector<Content> MakeContents() {
    std::vector<Content> all;
    // Each content as both writers write it.
    const auto add = [&all](const std::string& name, void (*write)(Client&),
                            const PlannedRecords& records, i64 nextRev, u32 indexEntries,
                            Marks marks = {}, const std::string& settings = kEachCommit) {
        for (const std::string writer : {"", "async_mode=yes;async_buffer_size=1;"}) {
            all.push_back({name + (writer.empty() ? ".edb" : "_async.edb"), settings + writer,
                           write, records, nextRev, indexEntries, marks});
        }
    };
    add("sizes", &WriteSizes, Sizes(), 11, 6);
    add("gaps", &WriteGaps, Gaps(), kFarRev + 2, 1, {.lifenum = 0xFFFFFFFE, .mark = 0x200000000});
    add("grouped", &WriteGrouped, Even(1, 15), 16, 4, {}, kByData);
    add("cleared", &WriteCleared, Even(8, 14), 15, 3, {.clearRev = 8});
    add("squeezed", &WriteSqueezed, Even(7, 14), 15, 2, {.clearRev = 7, .lifenum = 77});
    for (const char* const backup : {"squeezed.edb.backup", "squeezed_async.edb.backup"}) {
        all.push_back(
            {backup, kEachCommit, nullptr, Even(1, 12), 13, std::nullopt, {.lifenum = 77}});
    }
    add("truncated", &WriteTruncated, Even(1, 3), 4, 1);
    add("emptied", &WriteEmptied, {}, 7, 0, {.clearRev = 6, .lifenum = 79});
    return all;
}

// A copy of the content's files in a folder of its own.
class Copy {
  public:
    Copy(const Content& content, const std::string& folder, bool withIndex)
        : m_path(m_folder.File(content.fileName)),
          m_connString("file=" + m_path + ";" + content.settings) {
        const std::string from = folder + "/" + content.fileName;
        std::filesystem::copy_file(from, m_path);
        if (withIndex) {
            std::filesystem::copy_file(from + "-idx", m_path + "-idx");
        }
    }
    const std::string& ConnString() const { return m_connString; }

  private:
    const test::TempFolder m_folder;
    const std::string m_path;
    const std::string m_connString;
};

template <typename Value>
void RequireEqual(const Value& seen, const Value& expected, const char* what) {
    if (seen != expected) {
        std::ostringstream text;
        text << what << " is " << seen << " instead of " << expected;
        throw Failure(text.str());
    }
}

void RequireRecords(const Client& client, const PlannedRecords& expected) {
    if (client.Records(0, INT64_MAX) != expected) {
        throw Failure("other records than were committed");
    }
    // Each by itself, in the order of which the buffers hold none: from the last to the first.
    for (auto record = expected.rbegin(); record != expected.rend(); ++record) {
        if (client.Records(record->rev, record->rev) != PlannedRecords{*record}) {
            throw Failure("record " + std::to_string(record->rev) + " is not what it was");
        }
    }
}

void RequireContent(const Client& client, const Content& expected) {
    RequireEqual(client.NextRev(), expected.nextRev, "the next revision");
    RequireEqual(client.Lifenum(), expected.marks.lifenum, "the life number");
    RequireEqual(client.RevisionMark(), expected.marks.mark, "the revision mark");
    RequireRecords(client, expected.records);
    const LastCommit last = client.ScanForLastCommit();
    RequireEqual(last.clearRev, expected.marks.clearRev, "the clear revision");
    RequireEqual(last.commitRev, expected.nextRev - 1, "the last committed revision");
}

// Loads and says of each warning and error, and of an index that is not taken, that it is wrong.
void RequireLoading(const Copy& copy, const Content& expected, bool withIndex) {
    const test::LogCapture log;
    const Client client(copy.ConnString());
    const u32 entries = expected.indexEntries.value_or(0);
    const std::string valid =
        "Index file seems to be valid (" + std::to_string(entries) + " idx, sz 512)";
    RequireEqual(log.Count(valid), std::size_t{withIndex ? 1U : 0U}, "the count of valid indices");
    RequireEqual(log.CountContaining("Index test passed; start loading from offset"),
                 std::size_t{withIndex && entries != 0 ? 1U : 0U}, "the count of taken indices");
    RequireEqual(log.Texts(K9SYS_LOG_ERROR).size(), std::size_t{0}, "the count of errors");
    RequireContent(client, expected);
}

Content Appended(const Content& content) {
    Content grown = content;
    grown.records.push_back({content.nextRev, 0});
    grown.records.push_back({content.nextRev + 1, kLargestData});
    grown.records.push_back({content.nextRev + 2, 17});
    grown.nextRev = content.nextRev + 3;
    return grown;
}

void Append(Client& client) {
    client.Begin();
    client.Insert(0);
    client.Insert(kLargestData);
    client.Commit();
    client.Begin();
    client.Insert(5);
    client.Rollback();
    client.Insert(17);
}

// Says of what goes wrong in which content it did.
template <typename Function>
void Named(const Content& content, const Function& check) {
    try {
        check();
    } catch (const Failure& failure) {
        throw Failure(content.fileName + ": " + failure.what());
    }
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
        Named(content, [&] {
            Require(K9eReplStorageCreate(connString.c_str(), 0), "Create");
            {
                Client client(connString);
                content.write(client);
            }
            // A clear leaves the index as far as its thread has come; a load from the beginning
            // makes the one that follows from the file.
            std::filesystem::remove(path + "-idx");
            const Client savesTheIndex(connString);
        });
    }
}

std::vector<u8> ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw Failure("cannot read " + path);
    }
    const std::string all{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return {all.begin(), all.end()};
}

void CheckWithIndex(const Content& content, const std::string& folder) {
    Named(content, [&] {
        const bool hasIndex = content.indexEntries.has_value();
        RequireLoading(Copy(content, folder, hasIndex), content, hasIndex);
    });
}

void CheckWithoutIndex(const Content& content, const std::string& folder) {
    Named(content, [&] { RequireLoading(Copy(content, folder, false), content, false); });
}

void CheckAppending(const Content& content, const std::string& folder) {
    Named(content, [&] {
        const Copy copy(content, folder, content.indexEntries.has_value());
        const Content grown = Appended(content);
        {
            Client client(copy.ConnString());
            Append(client);
            RequireRecords(client, grown.records);
        }
        RequireContent(Client(copy.ConnString()), grown);
    });
}

}  // namespace k9erepl::portable
