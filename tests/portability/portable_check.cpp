// Checks of the portable storages, on copies of their files; see portable_contents.h.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "portability/portable_contents.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::portable {
namespace {

constexpr u32 kBlockData = 512 - 24;

void CopyFile(const std::string& from, const std::string& to) {
    const std::vector<u8> bytes = ReadFile(from);
    std::ofstream file(to, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file) {
        throw Failure("cannot write " + to);
    }
}

// A copy of the content's files in a folder of its own.
class Copy {
  public:
    Copy(const Content& content, const std::string& folder, bool withIndex)
        : m_path(m_folder.File(content.fileName)),
          m_connString("file=" + m_path + ";" + content.settings) {
        CopyFile(folder + "/" + content.fileName, m_path);
        if (withIndex) {
            CopyFile(folder + "/" + content.fileName + "-idx", m_path + "-idx");
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
    RequireEqual(client.Lifenum(), expected.lifenum, "the life number");
    RequireEqual(client.RevisionMark(), expected.mark, "the revision mark");
    RequireRecords(client, expected.records);
    const LastCommit last = client.ScanForLastCommit();
    RequireEqual(last.clearRev, expected.clearRev, "the clear revision");
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
    grown.records.push_back({content.nextRev + 1, kBlockData});
    grown.records.push_back({content.nextRev + 2, 17});
    grown.nextRev = content.nextRev + 3;
    return grown;
}

void Append(Client& client) {
    client.Begin();
    client.Insert(0);
    client.Insert(kBlockData);
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
