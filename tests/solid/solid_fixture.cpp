// The words of the storage file's tests; see the header.
#include "solid/solid_fixture.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <utility>

#include "index/index_file.h"
#include "platform/clock.h"
#include "platform/system_error.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {

namespace {

constexpr u32 kLongestShownData = 64;

bool IsPattern(const K9eReplRec& rec) {
    for (u32 i = 0; i < rec.dataSize; ++i) {
        if (rec.data[i] != FileBuilder::PatternByte(rec.rev, i)) {
            return false;
        }
    }
    return true;
}

void RemoveIndexFile(const char* connStr) {
    (void)DeleteIndexFile(connStr);
}

}  // namespace

std::string RecordText(i64 offset, const K9eReplRec& rec) {
    std::string text = "record " + std::to_string(rec.rev) + " at " + std::to_string(offset) + ": ";
    if (rec.dataSize <= kLongestShownData) {
        return text.append(reinterpret_cast<const char*>(rec.data), rec.dataSize);
    }
    return text + std::to_string(rec.dataSize) + (IsPattern(rec) ? " pattern" : " other") +
           " bytes";
}

std::string CommitText(i64 clearRev, i64 commitRev) {
    return "commit " + std::to_string(clearRev) + " " + std::to_string(commitRev);
}

u32 CreateStorageFile(const char* connStr, u32 flags) {
    return k9erepl::CreateStorageFile(connStr, flags, &RemoveIndexFile);
}

u32 DeleteStorage(const char* connStr) {
    return k9erepl::DeleteStorage(connStr, &RemoveIndexFile);
}

std::string SysErr(SystemErrorKind kind) {
    return "sys-err " + std::to_string(platform::SystemErrorOf(kind));
}

FileBuilder TwoTransactions() {
    FileBuilder file;
    file.NewFile().Record(1, "one").Record(2, "two").Commit(0, 2);
    file.Record(3, "three").Commit(0, 3);
    return file;
}

Items TwoTransactionsItems() {
    return {"commit 0 0", "record 1 at 1056: one",   "record 2 at 1083: two",
            "commit 0 2", "record 3 at 1142: three", "commit 0 3"};
}

std::string SolidTest::Conn(const std::string& settings) const {
    std::string conn = "file=" + Path();
    for (const std::string& more : {settings, std::string(WriterSetting())}) {
        conn += more.empty() ? "" : ";" + more;
    }
    return conn;
}

u32 SolidTest::TryOpen(const std::string& settings) {
    return m_solid.Open(Path(), Conn(settings).c_str());
}

void SolidTest::Open(const std::string& settings) {
    ASSERT_EQ(TryOpen(settings), RC_OK) << m_log;
    m_log.Clear();
}

void SolidTest::Open(FileBuilder file, const std::string& settings) {
    file.Save(Path());
    Open(settings);
}

void SolidTest::Reopen(const std::string& settings) {
    m_solid.Close();
    Open(settings);
}

u32 SolidTest::AnswerToRecord() {
    return m_answers.record > 0 && --m_answers.record == 0 ? m_answers.rc : RC_OK;
}

u32 SolidTest::AnswerToCommit() {
    return m_answers.commit > 0 && --m_answers.commit == 0 ? m_answers.rc : RC_OK;
}

std::uint32_t SolidTest::OnRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx) {
    auto& test = *static_cast<SolidTest*>(ctx);
    test.m_items.push_back(RecordText(static_cast<i64>(offset), *rec));
    return test.AnswerToRecord();
}

std::uint32_t SolidTest::OnCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev) {
    auto& test = *static_cast<SolidTest*>(ctx);
    test.m_items.push_back(CommitText(clearRev, commitRev));
    return test.AnswerToCommit();
}

u32 SolidTest::OnVisit(i64 offset, const K9eReplRec* rec, void* ctx) {
    auto& test = *static_cast<SolidTest*>(ctx);
    if (rec == nullptr) {
        test.m_items.push_back("commit at " + std::to_string(offset));
        return test.AnswerToCommit();
    }
    test.m_items.push_back(RecordText(offset, *rec));
    return test.AnswerToRecord();
}

u32 SolidTest::Scan() {
    m_items.clear();
    return m_solid.ScanFile(&OnRecord, &OnCommit, this);
}

u32 SolidTest::ScanFrom(i64 startOffset) {
    m_items.clear();
    return m_solid.ScanFileFrom(&OnRecord, &OnCommit, startOffset, this);
}

Items SolidTest::Scanned() {
    EXPECT_EQ(Scan(), RC_OK) << m_log;
    return m_items;
}

Items SolidTest::ScannedFrom(i64 startOffset) {
    EXPECT_EQ(ScanFrom(startOffset), RC_OK) << m_log;
    return m_items;
}

std::vector<u8> SolidTest::WrittenBytes() {
    (void)m_solid.CompleteAsyncTasks();  // dropped: a failed writer has written what it could
    return ReadBytes(Path());
}

Texts SolidTest::LoggedTexts() const {
    Texts texts = m_log.Texts();
    std::erase_if(texts, [](const std::string& text) {
        return text.starts_with("Writing thread ") || text.starts_with("Memory block allocated ") ||
               text == "Wait for finish async operations - OK";
    });
    return texts;
}

Items SolidTest::ItemsOfFile() {
    (void)m_solid.CompleteAsyncTasks();  // dropped: a failed writer has written what it could
    CSolidStorage other;
    EXPECT_EQ(other.Open(Path(), Conn().c_str(), FileUse::kNoLock), RC_OK) << m_log;
    m_items.clear();
    EXPECT_EQ(other.ScanFile(&OnRecord, &OnCommit, this), RC_OK) << m_log;
    return m_items;
}

u32 SolidTest::Enumerate(const FileEnumRange& range) {
    m_items.clear();
    return m_solid.EnumFileRecs(range, &OnVisit, this, &m_completed);
}

Items SolidTest::Enumerated(i64 fromRev, i64 toRev) {
    EXPECT_EQ(EnumerateRevs(fromRev, toRev), RC_OK) << m_log;
    EXPECT_TRUE(m_completed);
    return m_items;
}

i64 SolidTest::WriteRecord(i64 rev, std::string_view data, bool commit, u32 userWord) {
    FileBuilder piece;
    piece.Record(rev, data, userWord);
    if (commit) {
        piece.RawCommit(NewCommitBlock(platform::TimeStampCounter(), rev));
    }
    std::vector<u8> bytes = piece.Bytes();
    auto* const block =
        commit ? reinterpret_cast<TCommitBlock*>(bytes.data() + bytes.size() - kCommitBlockSize)
               : nullptr;
    std::atomic<i64> position{kUnknownOffset};
    K9eReplBlock head{};
    m_writeResult = m_solid.WriteItems(bytes.data(), static_cast<u32>(bytes.size()), block, &head,
                                       rev, &position);
    if (m_writeResult == RC_OK) {
        m_writeResult = m_solid.CompleteAsyncTasks();
    }
    return position;
}

i64 SolidTest::WriteTransaction(i64 rev, std::string_view data) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    const i64 position = WriteRecord(rev, data);
    EXPECT_EQ(m_writeResult, RC_OK) << m_log;
    EXPECT_EQ(m_solid.Commit(), RC_OK);
    return position;
}

i64 SolidTest::FlushedRev() {
    i64 rev = -1;
    EXPECT_EQ(m_solid.GetFlushedRev(&rev), RC_OK);
    return rev;
}

}  // namespace k9erepl::test
