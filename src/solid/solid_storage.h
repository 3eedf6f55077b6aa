// The storage file: an append-only stream of records and commit blocks behind a header
// (docs/storage-file.md). The storage object owns one and calls it under its lock.
#ifndef K9EREPL_SOLID_SOLID_STORAGE_H
#define K9EREPL_SOLID_SOLID_STORAGE_H

#include <k9erepl/storage_interfaces.h>

#include <memory>
#include <string>
#include <vector>

#include "memory/read_cache_manager.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "solid/file_format.h"
#include "solid/file_scan.h"
#include "writers/storage_file_state.h"
#include "writers/storage_writer.h"

namespace k9erepl {

// Receives one item of an enumeration: its file offset, and the record, or null for a commit
// block. The record is valid during the call. Non-zero stops the enumeration.
using FileItemVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// What an enumeration of the file covers.
struct FileEnumRange {
    i64 fromRev = 0;           // inclusive
    i64 toRev = 0;             // inclusive
    bool alsoCommits = false;  // visit commit blocks too
    i64 startOffset = 0;       // where an item begins; 0 for the file's first commit block
};

// The file is committed up to the last commit block that the load scan accepted or that was
// written since; whatever lies behind it is dead and overwritten by the next write. Two handles
// are open on it: this object's, for reading and for the header, and the writer's.
//
// Results are result codes; RC_NO_WRITER when no file is open. Failures are logged where they are
// found. One thread at a time.
class CSolidStorage final : public IK9eReplLLStorage {
  public:
    CSolidStorage();
    ~CSolidStorage() override;
    CSolidStorage(const CSolidStorage&) = delete;
    CSolidStorage& operator=(const CSolidStorage&) = delete;

    // Opens the existing file at `path` with the file settings of `connStr`.
    // Errors: RC_ALREADY when a file is open; RC_INVALID_ARG, RC_BAD_SIZE for a refused setting or
    // a file that is no storage; RC_SYSTEM_ERROR; RC_NO_MEMORY. The object then stays closed.
    u32 Open(const std::string& path, const char* connStr);
    void Close();
    bool IsOpen() const { return m_file.IsOpen(); }
    const std::string& Path() const { return m_state.path; }

    // The fields of the header that belong to the client. Set does not flush to the disk.
    u32 GetLifenum(u32* lifenum);
    u32 GetClearOldRev(i64* rev);
    u32 SetLifenum(u32 lifenum);
    u32 SetClearOldRev(i64 rev);

    // Called for each commit block written, with its commitRev; see FlushCallback. Stays set when
    // the file is closed. RC_OK.
    u32 SetWrittenRevisionCallback(K9eReplFlushCb callback, void* context);

    // --- Reading -----------------------------------------------------------------------------

    // The load scan from the beginning, for hosts. On a storage in use it ends at the write
    // position: an item behind it belongs to a transaction that was undone.
    u32 ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, void* ctx) override;

    // The load scan: checks every item from `startOffset` on (0 and 1056: from the file's first
    // commit block), hands them out and places the write position behind the last valid commit
    // block. Records behind that one have been handed out too: the caller drops those above
    // GetFlushedRev. Faults in the file end the scan with a warning and are no error, unless there
    // is no commit block at all or, from the beginning, none before the first record
    // (RC_FILE_CORRUPT). Errors also: RC_SYSTEM_ERROR, RC_NO_MEMORY, a callback's result; the
    // write position then stays where it was.
    // REQUIRES: startOffset is 0 or at least 1024.
    u32 ScanFileFrom(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, i64 startOffset,
                     void* ctx);

    // Hands the committed records of `range` to `visitor`. *completed is false if and only if the
    // visitor stopped it, whose result is then returned. The visitor may use this object; what it
    // writes is not enumerated.
    // REQUIRES: range.startOffset is 0 or at least 1024.
    // Errors: RC_BAD_DATA, RC_FILE_CORRUPT, RC_SYSTEM_ERROR, RC_NO_MEMORY.
    u32 EnumFileRecs(const FileEnumRange& range, FileItemVisitor visitor, void* ctx,
                     bool* completed);

    // The commit revision of the file's first commit block, and whether an item follows it.
    // Errors: RC_NOT_FOUND for a file too short or without that block, RC_SYSTEM_ERROR.
    u32 ReadFirstCommitInfo(i64* commitRev, bool* hasItems);

    // RC_OK when a record with revision `rev` lies at `offset`, else RC_NOT_FOUND; RC_SYSTEM_ERROR
    // or RC_SHORT_READ when that could not be read.
    u32 CheckRecordAt(i64 rev, i64 offset);

    // --- Writing -----------------------------------------------------------------------------

    u32 BeginTransaction();
    // Flushes to the disk, with force_flush, and forgets what the read cache holds.
    u32 Commit();
    // Goes back to BeginTransaction: the bytes written since are dead.
    u32 RollbackWrites();

    // Hands one run of items to the writer; arguments as StorageWriter::Write. RC_BAD_DATA when
    // `lastRevision` is below the last flushed revision.
    u32 WriteItems(u8* data, u32 size, TCommitBlock* commitBlock, K9eReplBlock* memoryBlock,
                   i64 lastRevision, std::atomic<i64>* filePosition);

    // The highest committed revision.
    u32 GetFlushedRev(i64* rev) const;
    // The file's length as last known, in bytes; 0 when closed. Never below the written data.
    i64 FileSize() const;

  private:
    class FileItems;
    struct FileItem;

    u32 LookAtItem(FileItems& items, const FileEnumRange& range, FileItem* item);

    u32 OpenFile(const std::string& path, const char* connStr);
    u32 ReadSettings(const char* connStr);
    u32 MakeWriter(const char* connStr);

    u32 ReadHeader(TFileHeader* header);
    template <typename Change>
    u32 UpdateHeader(Change change);
    template <typename Action>
    u32 WithHeaderPosition(Action action);

    u32 ScanItems(const FileScanCallbacks& callbacks, i64 startOffset, i64 dataEnd);
    u32 VisitItem(FileItems& items, const FileItem& item, FileItemVisitor visitor, void* ctx,
                  bool* completed);

    // Moves the file pointer unless it stands there already.
    bool SeekForReading(i64 offset);
    // RC_SHORT_READ, RC_SYSTEM_ERROR. ReadAt logs what it returns, ReadHere does not.
    u32 ReadHere(void* buffer, u32 size);
    u32 ReadAt(i64 offset, void* buffer, u32 size);
    // To be called when bytes of the file may have changed.
    void InvalidateReads();

    // The read buffers of the innermost enumeration that runs. Each level has its own: the record
    // that a visitor holds stays as it is while the visitor enumerates.
    u32 EnumCache(ReadCacheManager** cache);
    u32 AddNestedCache();

    // --- Set by Open, then constant until Close
    StorageFileState m_state;
    std::unique_ptr<StorageWriter> m_writer;

    // --- Reading
    platform::File m_file;
    i64 m_filePos = 0;  // where m_file's pointer stands, kUnknownOffset when that is not known
    ReadCacheManager m_readCache;
    std::vector<std::unique_ptr<ReadCacheManager>> m_nestedCaches;  // of levels 2, 3, ...
    u32 m_enumDepth = 0;                                            // enumerations that run
    u64 m_readGeneration = 0;  // changes when the read buffers were emptied
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SOLID_STORAGE_H
