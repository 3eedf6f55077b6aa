// The storage file: an append-only stream of records and commit blocks behind a header
// (docs/storage-file.md). The storage object owns one and calls it under its lock.
#ifndef K9EREPL_SOLID_SOLID_STORAGE_H
#define K9EREPL_SOLID_SOLID_STORAGE_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <string>

#include "format/storage_file_format.h"
#include "platform/int_types.h"
#include "solid/damaged_tail.h"
#include "solid/file_clear.h"
#include "solid/file_writes.h"
#include "solid/live_file.h"
#include "solid/load_scan.h"
#include "solid/record_enum.h"
#include "solid/solid_storage_owner.h"
#include "solid/squeeze.h"
#include "solid/storage_file.h"
#include "support/result.h"

namespace k9erepl {

// The file is committed up to the last commit block that the load scan accepted or that was written
// since. Whatever lies behind it is dead, and the next write overwrites it. A file that is opened
// read-only has no writer: what would write answers RC_NO_WRITER. The objects among the members do
// the work; this class forwards to them.
//
// Results are result codes; RC_NO_WRITER when no file is open. Failures are logged where they are
// found. One thread at a time calls it, under the storage's lock, unless a comment says otherwise;
// the writer may have a thread of its own.
class CSolidStorage final : public IK9eReplLLStorage {
  public:
    // `owner` runs the calls of hosts; null when no host can call, as in a load's temporary object
    // and in tests. It outlives this object.
    explicit CSolidStorage(SolidStorageOwner* owner = nullptr);
    // Closes the file.
    ~CSolidStorage() override;
    CSolidStorage(const CSolidStorage&) = delete;
    CSolidStorage& operator=(const CSolidStorage&) = delete;

    // Opens the existing file at `path` with the file settings of `connStr`. Its writer's lock is
    // held until Close, unless the setting file_lock says no; a squeeze hands it on to the new
    // file. Errors: RC_SYSTEM_ERROR when another writer has it; RC_ALREADY when a file is open;
    // RC_INVALID_ARG, RC_BAD_SIZE for a refused setting or a file that is no storage;
    // RC_SYSTEM_ERROR; RC_NO_MEMORY. The object then stays closed.
    [[nodiscard]] ResultCode Open(const std::string& path, const char* connStr,
                                  FileUse use = FileUse::kWrite);
    // Writes what is queued and closes the file; without an open file it does nothing. False when
    // the writing thread could not be ended: it still uses the memory blocks and the index entries
    // of what was queued, which must stay allocated for ever. REQUIRES: no enumeration runs.
    bool Close();
    // For a forked child: closes this process's descriptors and writes nothing. The writing thread,
    // if there is one, is the parent's, and what it uses stays allocated. The object may only be
    // destroyed afterwards.
    void LeaveToParent();
    bool IsOpen() const { return m_file.IsOpen(); }
    // The path given to Open; empty when the file is closed.
    const std::string& Path() const { return m_file.Path(); }

    // The fields of the header that belong to the client: the life number and the revision mark.
    // The Set functions do not flush to the disk.
    [[nodiscard]] ResultCode GetLifenum(u32* lifenum);
    [[nodiscard]] ResultCode GetClearOldRev(i64* rev);
    [[nodiscard]] ResultCode SetLifenum(u32 lifenum);
    [[nodiscard]] ResultCode SetClearOldRev(i64 rev);

    // The callback is called for each commit block written, with its commitRev, on the thread that
    // writes it; null unsets it. It stays set when the file is closed. Needs no lock; always RC_OK.
    u32 SetWrittenRevisionCallback(K9eReplFlushCb callback, void* context);

    // --- Reading -----------------------------------------------------------------------------

    // The load scan from the beginning, for hosts (host_scan.h); the owner runs it under the
    // storage's lock. Before a load it places the write position as ScanFileFrom does. Once the
    // storage is loaded or truncated it only reads: it waits until everything queued is written,
    // and goes up to the write position, because an item behind that belongs to a transaction that
    // was undone. A callback may use the storage. One that loads, squeezes, truncates or clears
    // everything ends the scan with RC_ENUM_STOP, because the items have moved.
    [[nodiscard]] ResultCode ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                      void* ctx) override;

    // The load scan: checks every item from the file offset `startOffset` on (0, 1024 and 1056:
    // from the file's first commit block), hands the items out, and places the write position
    // behind the last valid commit block. Records behind that block have been handed out, too: the
    // caller drops those that came after the last call of `commitCb`. Faults in the file end the
    // scan with a warning and are no error, unless there is no commit block at all or, from the
    // beginning, none before the first record (RC_FILE_CORRUPT).
    // Errors also: RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_SHORT_READ when the system gives fewer bytes
    // than the file has, a callback's result; the write position then stays where it was.
    // REQUIRES: startOffset is 0 or at least 1024.
    [[nodiscard]] ResultCode ScanFileFrom(K9eReplScanRecordCb recordCb,
                                          K9eReplScanCommitCb commitCb, i64 startOffset, void* ctx);

    // --- Reading a file that another process writes (live_file.h). REQUIRES: opened read-only.

    // To be called before a load: opens the file anew that the path leads to now. *goesOn receives
    // whether it holds what was loaded, perhaps with more behind it; it is false before the first
    // load.
    // Errors: as Open; what was loaded, and the handle on it, stays then.
    // REQUIRES: no enumeration runs.
    [[nodiscard]] ResultCode Refresh(bool* goesOn);
    // The load scan from where the last one ended. Arguments and errors: as ScanFileFrom;
    // kContentChanged, too, when the writer started the file over meanwhile or took something back.
    // REQUIRES: Refresh has said that the file goes on.
    [[nodiscard]] ResultCode ScanOn(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                    void* ctx);
    // Reads the fields of the header that belong to the client, both from one moment.
    // Errors: RC_SYSTEM_ERROR; kContentChanged when they change at every reading.
    [[nodiscard]] ResultCode ReadMarks(u32* lifenum, i64* clearOldRev);
    // RC_OK when everything that was read since the load began is the content that was loaded, or
    // when the file is not read-only.
    // Errors: as ContentMark::Check.
    [[nodiscard]] ResultCode CheckContent();

    // To be called when a load has succeeded. If its scan ended at bytes that are not zero, looks
    // behind them for commit blocks that link to each other: these mean damage in the middle of the
    // data, not its end (docs/storage-file.md). Logs that as an error and, with kKeepCopy, keeps a
    // copy of everything behind the last valid commit block beside the file. A copy that fails is
    // logged, and tried once more before the first write, which is what destroys those bytes.
    void KeepTailIfDamaged(TailCare care);

    // To be called behind a load scan from the file offset `loadedFrom`, with the setting check.
    // Reads the heads and the chain of commit blocks of the whole file, also what lies in front of
    // that offset, and looks behind their end for damage; changes nothing (whole_check.h).
    // Errors: RC_FILE_CORRUPT, logged, for damage in the middle; RC_BAD_DATA when the load's
    // offset, a claim of the index, was no place to begin; RC_SYSTEM_ERROR, RC_NO_MEMORY,
    // RC_SHORT_READ; beside a writer, kContentChanged.
    [[nodiscard]] ResultCode CheckWhole(i64 loadedFrom);

    // Hands the committed records of `range` to `visitor`. *completed is false if and only if the
    // visitor stopped the enumeration; its result is then returned. The visitor may use this
    // object; what it writes is not enumerated. A record above the range ends the enumeration, but
    // only if it is credible: a revision that damage has made larger must not hide records behind
    // it.
    // Errors, logged: RC_BAD_DATA, RC_FILE_CORRUPT, RC_SYSTEM_ERROR, RC_NO_MEMORY.
    // REQUIRES: range.startOffset is 0 or at least 1024.
    [[nodiscard]] ResultCode EnumFileRecs(const FileEnumRange& range, FileItemVisitor visitor,
                                          void* ctx, bool* completed);

    // *commitRev receives the commitRev of the file's first commit block, *hasItems whether an item
    // follows it.
    // Errors: RC_NOT_FOUND for a file too short or without that block, RC_SYSTEM_ERROR.
    [[nodiscard]] ResultCode ReadFirstCommitInfo(i64* commitRev, bool* hasItems);

    // RC_OK when a record with revision `rev` lies at the file offset `offset`, else RC_NOT_FOUND;
    // RC_SYSTEM_ERROR or RC_SHORT_READ when that could not be read.
    [[nodiscard]] ResultCode CheckRecordAt(i64 rev, i64 offset);

    // *rev receives the revision of the record that ends at the file offset `offset`, or the
    // commitRev of the commit block that ends there: no record before `offset` has a higher one.
    // Looks at the last 64 KiB before it.
    // Errors: RC_NOT_FOUND when nothing is recognised there; RC_SYSTEM_ERROR, RC_SHORT_READ,
    // RC_NO_MEMORY.
    // REQUIRES: offset is at least 1056.
    [[nodiscard]] ResultCode FindRevBefore(i64 offset, i64* rev);

    // --- Writing -----------------------------------------------------------------------------

    // True with the setting force_flush: each commit, and each commit block of a clear, is flushed
    // to the disk, which may fail after OnWriteToFile was called for it. Set by Open.
    bool ForcesFlushes() const { return m_file.State().forceFlush; }

    // Remembers the place to which RollbackWrites goes back.
    [[nodiscard]] ResultCode BeginTransaction() { return m_writes.BeginTransaction(); }
    // Flushes to the disk, with force_flush, and makes the read buffers forget what they hold.
    [[nodiscard]] ResultCode Commit() { return m_writes.Commit(); }
    // Goes back to BeginTransaction: the bytes written since then are dead, and the next write
    // overwrites them.
    [[nodiscard]] ResultCode RollbackWrites();
    // Zeroes what was rolled back, so that no load serves it; see StorageWriter::ClearUndone.
    [[nodiscard]] ResultCode ClearUndone();

    // Hands one run of items to the writer. The arguments are those of StorageWriter::Write.
    // Errors: those of the writer; RC_BAD_DATA, logged, when `lastRevision` is below the last
    // flushed revision.
    [[nodiscard]] ResultCode WriteItems(u8* data, u32 size, TCommitBlock* commitBlock,
                                        K9eReplBlock* memoryBlock, i64 lastRevision,
                                        std::atomic<i64>* filePosition) {
        return m_writes.WriteItems(data, size, commitBlock, memoryBlock, lastRevision,
                                   filePosition);
    }

    // The file offset at which the next WriteItems puts its run, once everything queued is written.
    // REQUIRES: the file is open for writing.
    i64 QueuedEnd() const { return m_file.Writer().QueuedEnd(); }

    // Waits until everything queued is written, at most 60 s (RC_TIMEOUT). Nothing is ever queued
    // unless the writer is asynchronous (setting async_mode).
    [[nodiscard]] ResultCode CompleteAsyncTasks();
    // Waits until some block has no queued write any more, at most 60 s (RC_TIMEOUT).
    [[nodiscard]] ResultCode WaitReleaseBlock();
    // True when the caller is the writer's own thread. Needs no lock.
    bool IsOnWritersThread() const { return m_file.HasWriter() && m_file.Writer().IsOnOwnThread(); }
    // After a failed operation: true when something that was queued may still be written.
    bool MayStillWrite() const { return m_file.HasWriter() && m_file.Writer().MayStillWrite(); }

    // --- Removing. None of it while a transaction of the file is open. A visitor of an enumeration
    // that removes something must end that enumeration.

    // Appends a commit block that says: records below `rev`, or below the clear revision if that is
    // higher, are no longer served. With force_flush it is on the disk when this returns, unless
    // the writer is asynchronous, which has only queued it. A failure leaves the clear revision as
    // it was, unless OnWriteToFile has written something behind the block.
    [[nodiscard]] ResultCode SetClearRev(i64 rev);

    // Starts the file over: without items, with `rev` as its clear revision and commit revision,
    // and with these header fields. If the setting file_initial_size is given, the file on disk
    // gets that length; otherwise its length stays. When this fails, the beginning of the file may
    // be damaged.
    [[nodiscard]] ResultCode TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev);

    // Copies what is kept into a new file, which takes the old one's place; *shift receives what
    // is to be added to the file offset of every kept item. The new file is made under the name
    // of the old one and ".temporary", which must be free; at any moment the file's name leads to
    // the old or the new file, unless the file system has no hard links: then, with keepBackup,
    // the name is free for a moment while the backup already exists.
    // A failure up to the call of beforeReplace leaves the old file open, perhaps with its clear
    // revision raised; one after it closes the file.
    // REQUIRES: request.commitOffset is the offset of a commit block.
    [[nodiscard]] ResultCode Squeeze(const SqueezeRequest& request, i64* shift);

    // *rev receives the highest committed revision; 0: none.
    [[nodiscard]] ResultCode GetFlushedRev(i64* rev) const;
    // The file's length as last known, in bytes; 0 when closed. Never below the written data.
    i64 FileSize() const { return m_file.FileSize(); }

  private:
    // Opens the file and allocates the read buffers. After a failure: Close.
    [[nodiscard]] ResultCode OpenParts(const std::string& path, const char* connStr, FileUse use);
    // ScanFile, under the storage's lock.
    [[nodiscard]] ResultCode ScanForHost(const FileScanCallbacks& callbacks);

    SolidStorageOwner* const m_owner;  // may be null
    // Each refers only to those before it.
    StorageFile m_file;
    LiveFile m_live{m_file};
    LoadScan m_load{m_file, m_live};
    DamagedTail m_tail{m_file, m_live, m_load};
    FileWrites m_writes{m_file, m_tail};
    FileClear m_clear{m_file, m_writes, m_tail};
    RecordEnum m_enum{m_file, m_live};
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SOLID_STORAGE_H
