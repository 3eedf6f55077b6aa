// What the tests of the writers share: a new storage file with a synchronous writer on it, words
// for writing records and commit blocks, and a reader that says what a load would make of the file.
#ifndef K9EREPL_TESTS_WRITERS_WRITER_FIXTURE_H
#define K9EREPL_TESTS_WRITERS_WRITER_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"
#include "writers/storage_file_state.h"
#include "writers/sync_storage_writer.h"

namespace k9erepl::test {

using Bytes = std::vector<u8>;

constexpr u32 kFirstSequence = 1000;

// `text` as bytes; a record as it lies in the file, its data all `fill`.
Bytes BytesOf(const std::string& text);
Bytes Record(i64 rev, u32 dataSize, u8 fill = 0x5A);
Bytes operator+(Bytes left, const Bytes& right);

// The items that a load accepts, in file order: "C0 R1 R2 C2". It ends at the first word that is
// no signature, and at a commit block that does not link to the one before it.
std::string Items(const std::string& path);

// "sys-err <n>" as messages name the error that the fault injection gave.
std::string SysErr(SystemErrorKind kind);

// A system call that sets the end of the file and leaves the file pointer there, as some systems
// do.
bool SetEndMovingThePointer(platform::NativeFile file, i64 size);

class WriterTest : public ::testing::Test {
  protected:
    static constexpr i64 kStart = kFirstItemOffset;

    // A new storage file of 1064 bytes, whose first commit block has kFirstSequence.
    WriterTest();

    // The writer, made at first use, so that a test sets m_state before; its position is kStart.
    SyncStorageWriter& Writer();

    // One write of bytes without a commit block.
    u32 Append(Bytes bytes, std::atomic<i64>* filePosition = nullptr, i64 lastRevision = 0);
    u32 AppendRecord(i64 rev);
    // One write of `records` and, behind them, a commit block.
    u32 AppendRun(const Bytes& records, i64 commitRev, u32 sequence);
    // The same of one record; the state then has its revision flushed, as the storage file sees
    // to it.
    u32 CommitRecord(i64 rev, u32 sequence);

    Bytes FileBytes() const { return ReadBytes(m_path); }
    Bytes FileBytes(i64 offset, std::size_t count) const;
    i64 FileLength() const { return FileSize(m_path); }
    TCommitBlock CommitBlockAt(i64 offset) const;

    static u32 SetEnds() { return CallCount(SystemCall::kSetEnd); }
    static u32 Flushes() { return CallCount(SystemCall::kFlush); }

    ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    TempFolder m_folder;
    const std::string m_path = m_folder.File("storage");
    StorageFileState m_state;
    std::unique_ptr<SyncStorageWriter> m_writer;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_WRITERS_WRITER_FIXTURE_H
