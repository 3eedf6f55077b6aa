// Copies, opens and compares; see the header.
#include "model/file_look.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include "model/storage_client.h"

namespace k9erepl::model {

namespace {

namespace fs = std::filesystem;

constexpr u32 kStop = 0x5109;
constexpr u64 kSmallestBlock = 138;

std::string BytesOf(const std::string& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

// What lies in the file at one moment. Each byte of it is written once: what two readings have in
// common was there when the first one had ended.
bool CopyGrowing(const std::string& from, const std::string& to) {
    std::string bytes;
    for (std::string again = BytesOf(from); again != bytes; again = BytesOf(from)) {
        bytes.swap(again);
    }
    std::ofstream(to, std::ios::binary | std::ios::trunc) << bytes;
    return !bytes.empty();
}

// A copy of a storage file and its index that goes with this object.
class Copy {
  public:
    explicit Copy(const FileLook& look)
        : m_path(look.workPath), m_indexPath(look.workPath + "-idx") {
        const auto replace = fs::copy_options::overwrite_existing;
        std::error_code rc;
        // The index first: it must not tell of more than the file's copy holds.
        if (!look.indexPath.empty()) {
            fs::copy_file(look.indexPath, m_indexPath, replace, rc);
        }
        m_made = look.growing ? CopyGrowing(look.path, m_path)
                              : fs::copy_file(look.path, m_path, replace, rc);
    }
    ~Copy() {
        std::error_code ignored;
        fs::remove(m_path, ignored);
        fs::remove(m_indexPath, ignored);
    }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;

    bool Made() const { return m_made; }

  private:
    std::string m_path;
    std::string m_indexPath;
    bool m_made = false;
};

void ExpectRecords(const StorageClient& client, const Content& content, const std::string& what,
                   Verdict& verdict) {
    auto next = content.records.begin();
    const u32 rc = client.Enumerate(kLowestRev, kHighestRev, [&](const K9eReplRec& record) {
        if (!ExpectRecord(record, next, content.records.end(), what + "record", verdict)) {
            return kStop;
        }
        ++next;
        return u32{RC_OK};
    });
    verdict.Expect(rc == RC_OK || rc == kStop, what + "enumeration", std::to_string(rc));
    verdict.Expect(next == content.records.end(), what + "record is missing",
                   next == content.records.end() ? "" : "rev " + std::to_string(next->first));
}

void ExpectMarks(const StorageClient& client, const Content& content, const std::string& what,
                 Verdict& verdict) {
    u32 lifenum = 0;
    i64 mark = 0;
    K9eReplStorageGetLifenum(client.Handle(), &lifenum);
    K9eReplStorageGetClearOldRev(client.Handle(), &mark);
    verdict.ExpectIn(client.NextRev(), content.nextRev, (what + "next revision").c_str());
    verdict.ExpectEqual(lifenum, content.lifenum, (what + "life number").c_str());
    verdict.ExpectEqual(mark, content.mark, (what + "revision mark").c_str());
}

// The failure is that of the last one.
void ExpectOne(const StorageClient& client, const std::vector<Content>& contents,
               const std::string& what, Verdict& verdict) {
    Verdict one;
    one.Expect(!contents.empty(), what + "no such state",
               "next revision " + std::to_string(client.NextRev()));
    for (const Content& content : contents) {
        one = Verdict();
        ExpectRecords(client, content, what, one);
        ExpectMarks(client, content, what, one);
        if (!one.Failed()) {
            return;
        }
    }
    verdict.Expect(false, one.First()->what, one.First()->details);
}

}  // namespace

bool ExpectRecord(const K9eReplRec& got, Records::const_iterator expected,
                  Records::const_iterator end, const std::string& what, Verdict& verdict) {
    const i64 rev = got.rev;
    if (expected == end || rev != expected->first) {
        return verdict.Expect(false, what + " has the wrong revision",
                              "got " + std::to_string(rev) + ", expected " +
                                  (expected == end ? "none" : std::to_string(expected->first)));
    }
    const Record& record = expected->second;
    const bool same =
        got.userWord == record.userWord && got.dataSize == record.data.size() &&
        (record.data.empty() || std::memcmp(got.data, record.data.data(), record.data.size()) == 0);
    return same ||
           verdict.Expect(false, what + " has other bytes",
                          "rev " + std::to_string(rev) + ", " + std::to_string(got.dataSize) +
                              " bytes of data, expected " + std::to_string(record.data.size()));
}

void ExpectContent(const FileLook& look, const Content& content, Verdict& verdict) {
    const ContentsWith theOne = [&](i64) { return std::vector<Content>{content}; };
    ExpectOneContent(look, content.largestNeed, theOne, verdict);
}

void ExpectOneContent(const FileLook& look, u64 largestNeed, const ContentsWith& contents,
                      Verdict& verdict) {
    const Copy copy(look);
    if (!verdict.Expect(copy.Made(), look.what + "file is missing")) {
        return;
    }
    Settings settings;
    settings.cacheBlocks = look.cacheBlocks;
    settings.blockSize = static_cast<u32>(std::max(kSmallestBlock, largestNeed));
    StorageClient client;
    const u32 opened = client.Open(settings.ConnString(look.workPath));
    if (!verdict.Expect(opened == RC_OK, look.what + "open", std::to_string(opened))) {
        return;
    }
    const u32 loaded = K9eReplStorageLoad(client.Handle());
    if (verdict.Expect(loaded == RC_OK, look.what + "load", std::to_string(loaded))) {
        ExpectOne(client, contents(client.NextRev()), look.what, verdict);
    }
}

}  // namespace k9erepl::model
