// The stage on which removals are interrupted; see the header.
#include "crash/removal.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>

#include "support/log_capture.h"
#include "support/writer_mode.h"

namespace k9erepl::test {
namespace {

namespace fs = std::filesystem;

constexpr i64 kFirstKeptRev = 11;  // in the middle of a transaction
constexpr i64 kClearedBefore = 8;  // by the logical clear of Removal::cleared
constexpr i64 kRecords = 30;
constexpr i64 kTransaction = 3;
constexpr u32 kLifenum = 7;
constexpr i64 kMark = 5;
constexpr u32 kModeLogical = 0;
constexpr u32 kModeSqueeze = 1;
constexpr u32 kModeBackup = 2;
constexpr u32 kModeMark = 4;

// All records have one size: what is appended to a truncated file ends where an old item begins.
SeenRecord RecordOf(i64 rev) {
    char data[40];
    (void)std::snprintf(data, sizeof data, "the data of revision %06d", static_cast<int>(rev));
    return {rev, static_cast<u32>(rev * 17), data};
}

SeenRecords RecordsFrom(i64 first, i64 last) {
    SeenRecords records;
    for (i64 rev = first; rev <= last; ++rev) {
        records.push_back(RecordOf(rev));
    }
    return records;
}

u32 InsertNext(void* handle) {
    i64 rev = 0;
    if (u32 rc = K9eReplStorageGetNextRev(handle, &rev); rc != RC_OK) {
        return rc;
    }
    const SeenRecord seen = RecordOf(rev);
    Record record(seen.data, seen.userWord);
    return K9eReplStorageInsert(handle, record.Get());
}

void AppendTransaction(TestStorage& storage) {
    EXPECT_EQ(storage.Begin(), RC_OK);
    for (i64 i = 0; i < kTransaction; ++i) {
        EXPECT_EQ(InsertNext(storage.Handle()), RC_OK);
    }
    EXPECT_EQ(storage.Commit(), RC_OK);
}

Content ContentOf(TestStorage& storage) {
    Content content;
    content.records = storage.Records();
    content.nextRev = storage.NextRev();
    content.oldestRev = StorageAccess::OldestRev(storage.Object());
    EXPECT_EQ(K9eReplStorageGetLifenum(storage.Handle(), &content.lifenum), RC_OK);
    EXPECT_EQ(K9eReplStorageGetClearOldRev(storage.Handle(), &content.mark), RC_OK);
    return content;
}

std::string SettingsOf(const Sizes& sizes, bool forceFlush) {
    return "block_size=400;flush_trans_num=1;index_hint=1;cache_type=Last2;" +
           std::string(sizes.settings) + "force_flush=" + (forceFlush ? "yes" : "no");
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Content& content) {
    out << content.records.size() << " records";
    if (!content.records.empty()) {
        out << " (" << content.records.front() << " to " << content.records.back() << ')';
    }
    return out << ", next " << content.nextRev << ", oldest " << content.oldestRev << ", life "
               << content.lifenum << ", mark " << content.mark;
}

RemovalStage::RemovalStage(const Removal& removal, const Sizes& sizes, bool forceFlush)
    : m_removal(removal), m_settings(SettingsOf(sizes, forceFlush)), m_calls(Path()) {
    Build();
    fs::copy(m_folder.File("work"), m_folder.File("kept"));
    if (!removal.hardLinks) {
        m_calls.RefuseHardLinks();
    }
}

std::string RemovalStage::ConnStr(const std::string& path) const {
    return "file=" + path + ";" + WriterSetting() + m_settings;
}

void RemovalStage::Build() {
    TestStorage storage(ConnStr(Path()));
    EXPECT_EQ(K9eReplStorageSetLifenum(storage.Handle(), kLifenum), RC_OK);
    EXPECT_EQ(K9eReplStorageClearOldRev(storage.Handle(), kMark, kModeMark), RC_OK);
    for (i64 i = 0; i < kRecords / kTransaction; ++i) {
        AppendTransaction(storage);
    }
    if (m_removal.cleared) {
        EXPECT_EQ(K9eReplStorageClearOldRev(storage.Handle(), kClearedBefore, kModeLogical), RC_OK);
    }
    if (m_removal.olderBackup) {
        TestStorage older("block_size=400;file=" + Backup());
        EXPECT_EQ(InsertNext(older.Handle()), RC_OK);
    }
}

Content RemovalStage::Old() const {
    const i64 oldest = m_removal.cleared ? kClearedBefore : 0;
    return {RecordsFrom(std::max(oldest, i64{1}), kRecords), kRecords + 1, oldest, kLifenum, kMark};
}

Content RemovalStage::New() const {
    if (m_removal.kind == RemovalKind::kTruncate) {
        return {};
    }
    if (m_removal.kind == RemovalKind::kClearAll) {
        return {{}, kRecords + 1, kRecords, kLifenum, kMark};
    }
    return {RecordsFrom(kFirstKeptRev, kRecords), kRecords + 1, kFirstKeptRev, kLifenum, kMark};
}

SeenRecords RemovalStage::OlderBackup() {
    return RecordsFrom(1, 1);
}

void RemovalStage::Restore() {
    fs::remove_all(m_folder.File("work"));
    fs::copy(m_folder.File("kept"), m_folder.File("work"));
}

u32 RemovalStage::Remove(void* handle) const {
    switch (m_removal.kind) {
        case RemovalKind::kSqueeze:
            return K9eReplStorageClearOldRev(handle, kFirstKeptRev, kModeSqueeze);
        case RemovalKind::kSqueezeBackup:
            return K9eReplStorageClearOldRev(handle, kFirstKeptRev, kModeBackup);
        case RemovalKind::kTruncate:
            return K9eReplStorageTruncate(handle);
        case RemovalKind::kClearAll:
            return K9eReplStorageClearAll(handle, kModeLogical);
        case RemovalKind::kClearLogically:
            break;
    }
    return K9eReplStorageClearOldRev(handle, kFirstKeptRev, kModeLogical);
}

Trace RemovalStage::Run() {
    TestStorage storage(ConnStr(Path()), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    m_calls.Begin();
    EXPECT_EQ(Remove(storage.Handle()), RC_OK);
    storage.Close();
    return m_calls.End();
}

// The child has no threads but its own, and shares nothing with the test but the files.
bool RemovalStage::CrashAt(const CrashPoint& point) {
    Restore();
    const pid_t child = fork();
    if (child == 0) {
        RemoveAndEndAt(point);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
}

void RemovalStage::RemoveAndEndAt(const CrashPoint& point) {
    m_calls.EndProcessAt(point);
    void* handle = nullptr;
    if (K9eReplStorageOpen(ConnStr(Path()).c_str(), &handle) != RC_OK ||
        K9eReplStorageLoad(handle) != RC_OK) {
        _exit(1);
    }
    m_calls.Begin();
    const u32 rc = Remove(handle);
    K9eReplStorageClose(handle);
    _exit(rc == RC_OK ? 0 : 2);
}

Strings RemovalStage::Files() const {
    Strings names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_folder.File("work"))) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string RemovalStage::State() const {
    std::string state;
    for (const std::string& name : Files()) {
        const std::string path = m_folder.File("work/" + name);
        std::string bytes(static_cast<std::size_t>(fs::file_size(path)), '\0');
        std::ifstream(path, std::ios::binary)
            .read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        state += name + '/' + std::to_string(fs::hard_link_count(path)) + '/' +
                 std::to_string(bytes.size()) + '/' +
                 std::to_string(std::hash<std::string>()(bytes)) + '\n';
    }
    return state;
}

u32 RemovalStage::TryOpen() const {
    const LogCapture log;
    return TestStorage(ConnStr(Path()), Start::kNothing).TryOpen();
}

u32 RemovalStage::RemoveAgain(std::vector<LoggedMessage>* messages) const {
    const LogCapture log;
    TestStorage storage(ConnStr(Path()), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    const u32 rc = Remove(storage.Handle());
    if (messages != nullptr) {
        *messages = log.Messages();
    }
    return rc;
}

Content RemovalStage::Look() const {
    TestStorage storage(ConnStr(Path()), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    return ContentOf(storage);
}

Content RemovalStage::LookAt(const std::string& path) const {
    const TempFolder folder;
    fs::copy_file(path, folder.File("copy.edb"));
    TestStorage storage(ConnStr(folder.File("copy.edb")), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    return ContentOf(storage);
}

Content RemovalStage::Append(Content content) const {
    TestStorage storage(ConnStr(Path()), Start::kNothing);
    EXPECT_EQ(storage.TryOpenAndLoad(), RC_OK);
    AppendTransaction(storage);
    for (const SeenRecord& record :
         RecordsFrom(content.nextRev, content.nextRev + kTransaction - 1)) {
        content.records.push_back(record);
    }
    content.nextRev += kTransaction;
    return content;
}

}  // namespace k9erepl::test
