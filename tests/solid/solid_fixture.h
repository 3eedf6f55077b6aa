// What the tests of the storage file share: a storage file in a temporary folder, made item by
// item, system calls that can fail, and words for scanning, enumerating and writing.
#ifndef K9EREPL_TESTS_SOLID_SOLID_FIXTURE_H
#define K9EREPL_TESTS_SOLID_SOLID_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/int_types.h"
#include "solid/solid_storage.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/storage_file_builder.h"
#include "support/temp_folder.h"
#include "support/writer_mode.h"

namespace k9erepl::test {

inline constexpr i64 kMebibyte = 1024 * 1024;

// What a scan or an enumeration handed out, one text for each item: "record 1 at 1056: one" and
// "commit 0 2" (clearRev, commitRev), in enumerations "commit at 1088".
using Items = std::vector<std::string>;
using Texts = std::vector<std::string>;

// "record <rev> at <offset>: <data>". Data over 64 bytes: "<size> pattern bytes" when they are what
// FileBuilder::LargeRecord makes, else "<size> other bytes".
std::string RecordText(i64 offset, const K9eReplRec& rec);
std::string CommitText(i64 clearRev, i64 commitRev);

// "sys-err <n>" as messages name the error that the fault injection gave; of no error "sys-err 0".
std::string SysErr(SystemErrorKind kind);

// The functions of solid/storage_file_admin.h, as their caller uses them: with the library's own
// deletion of the index file.
u32 CreateStorageFile(const char* connStr, u32 flags);
u32 DeleteStorage(const char* connStr);

// How many file descriptors, on Windows handles of files, this process has; in posix/ and windows/.
std::size_t OpenDescriptors();

// A new file with two transactions: records 1 and 2, record 3. Its items begin at 1056, 1083,
// 1110 (commit), 1142, 1171 (commit); the data ends at 1203.
FileBuilder TwoTransactions();
Items TwoTransactionsItems();
inline constexpr i64 kTwoTransactionsEnd = 1203;

class SolidTest : public ::testing::Test {
  protected:
    std::string Path() const { return m_folder.File("data.edb"); }
    // "file=<path>", the settings and the writer that support/writer_mode.h says.
    std::string Conn(const std::string& settings = "") const;

    u32 TryOpen(const std::string& settings = "");
    // Opens the file at Path() and forgets what was logged; must succeed.
    void Open(const std::string& settings = "");
    // Saves the bytes at Path() first.
    void Open(FileBuilder file, const std::string& settings = "");
    void Reopen(const std::string& settings = "");

    // Scans from the beginning and collects in m_items; the result code.
    u32 Scan();
    u32 ScanFrom(i64 startOffset);
    // A scan that must succeed; what it handed out.
    Items Scanned();
    Items ScannedFrom(i64 startOffset);
    // Opens and scans the file at Path() with an object of its own, when the writer has nothing
    // more to write.
    Items ItemsOfFile();
    // The file at Path() then.
    std::vector<u8> WrittenBytes();
    i64 WrittenSize() { return static_cast<i64>(WrittenBytes().size()); }
    // What was logged, but for the asynchronous writer's own messages.
    Texts LoggedTexts() const;

    // Enumerates and collects in m_items; the result code. m_completed is the completed flag.
    u32 Enumerate(const FileEnumRange& range);
    u32 EnumerateRevs(i64 fromRev, i64 toRev) {
        return Enumerate({.fromRev = fromRev, .toRev = toRev});
    }
    // An enumeration that must succeed, whole; what it handed out.
    Items Enumerated(i64 fromRev, i64 toRev);

    // A write of one record and, if `commit`, of a commit block behind it, in one piece; waits for
    // the writer. Returns the offset where it went, or -1 when it failed with m_writeResult.
    i64 WriteRecord(i64 rev, std::string_view data, bool commit = true, u32 userWord = 0);
    // BeginTransaction, WriteRecord and Commit, which must succeed.
    i64 WriteTransaction(i64 rev, std::string_view data);
    i64 FlushedRev();

    // From now on every n-th visit and callback (1 is the next) answers `rc`.
    void AnswerAt(u32 nthRecord, u32 rc) { m_answers = {nthRecord, 0, rc}; }
    void AnswerAtCommit(u32 nthCommit, u32 rc) { m_answers = {0, nthCommit, rc}; }
    u32 AnswerToRecord();
    u32 AnswerToCommit();

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    CSolidStorage m_solid;
    Items m_items;
    bool m_completed = false;
    u32 m_writeResult = RC_OK;

  private:
    struct Answers {
        u32 record = 0;  // counts down; strikes at 1
        u32 commit = 0;
        u32 rc = RC_OK;
    };
    static std::uint32_t OnRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx);
    static std::uint32_t OnCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev);
    static u32 OnVisit(i64 offset, const K9eReplRec* rec, void* ctx);

    Answers m_answers;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SOLID_SOLID_FIXTURE_H
