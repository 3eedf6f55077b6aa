// The storage file: an append-only stream of records and commit blocks behind a header
// (docs/storage-file.md). The storage object owns one and calls it under its lock.
#ifndef K9EREPL_SOLID_SOLID_STORAGE_H
#define K9EREPL_SOLID_SOLID_STORAGE_H

#include <k9erepl/storage_interfaces.h>

#include <memory>
#include <string>
#include <vector>

#include "format/storage_file_format.h"
#include "memory/read_cache_manager.h"
#include "platform/file.h"
#include "platform/int_types.h"
#include "platform/tracked_file.h"
#include "solid/content_mark.h"
#include "solid/file_scan.h"
#include "solid/solid_storage_owner.h"
#include "writers/storage_file_state.h"
#include "writers/storage_writer.h"

namespace k9erepl {

struct SqueezeNames;
class TemporaryFile;

// What a storage file is opened for.
enum class FileUse {
    kWrite,     // with the writer's lock, which keeps other writers away
    kNoLock,    // to be read for a moment, as by a load into a storage without a file
    kReadOnly,  // to be read while another may write it
};

// What is done about damage in the middle of the file.
enum class TailCare { kReport, kKeepCopy };

// Receives one item of an enumeration: its file offset, and the record, or null for a commit
// block. The record is valid during the call. Non-zero stops the enumeration.
using FileItemVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// What an enumeration of the file covers.
struct FileEnumRange {
    i64 fromRev = 0;           // inclusive
    i64 toRev = 0;             // inclusive
    bool alsoCommits = false;  // visit commit blocks too
    i64 startOffset = 0;       // where an item begins; 0 for the file's first commit block
    // Up to this file offset every record is at or below toRev, as the caller knows from where its
    // blocks begin: one that is not is damaged. 0: nothing is known.
    i64 reachesTo = 0;
};

// What a squeeze keeps of the file, and what else it shall do.
struct SqueezeRequest {
    i64 clearRev = 0;         // becomes the file's clear revision
    i64 copyFrom = 0;         // offset of the first item that is kept
    i64 commitOffset = 0;     // of the first commit block at or behind it
    bool keepBackup = false;  // keep the old file under its name and ".backup"
    // Called when the copy is complete and on the disk, right before it takes the file's place.
    // Its failure gives the squeeze up and becomes its result. May be null.
    u32 (*beforeReplace)(void* ctx) = nullptr;
    void* ctx = nullptr;
};

// The file is committed up to the last commit block that the load scan accepted or that was
// written since; whatever lies behind it is dead and overwritten by the next write. Two handles
// are open on it: this object's, for reading and for the header, and the writer's. A file that is
// opened read-only has no writer, and one handle that cannot write: what would write answers
// RC_NO_WRITER.
//
// Results are result codes; RC_NO_WRITER when no file is open. Failures are logged where they are
// found. One thread at a time.
class CSolidStorage final : public IK9eReplLLStorage {
  public:
    // `owner` brings in the calls of hosts; null when nobody else can call, as in a load's
    // temporary object and in tests.
    explicit CSolidStorage(SolidStorageOwner* owner = nullptr);
    ~CSolidStorage() override;
    CSolidStorage(const CSolidStorage&) = delete;
    CSolidStorage& operator=(const CSolidStorage&) = delete;

    // Opens the existing file at `path` with the file settings of `connStr`. Its writer's lock is
    // held until Close, unless the setting file_lock says no; a squeeze hands it on to the new
    // file. Errors: RC_SYSTEM_ERROR when another writer has it; RC_ALREADY when a file is open;
    // RC_INVALID_ARG, RC_BAD_SIZE for a refused setting or a file that is no storage;
    // RC_SYSTEM_ERROR; RC_NO_MEMORY. The object then stays closed.
    u32 Open(const std::string& path, const char* connStr, FileUse use = FileUse::kWrite);
    // Writes what is queued. False when the writing thread could not be ended: it still uses the
    // memory blocks and the index entries of what was queued, which must stay allocated for ever.
    bool Close();
    // In a forked child: closes this process's descriptors and writes nothing. The writing thread,
    // if there is one, is the parent's, and what it uses stays allocated. To be destroyed next.
    void LeaveToParent();
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

    // The load scan from the beginning, for hosts (host_scan.cpp), run by the owner under the
    // storage's lock. Before a load it places the write position as ScanFileFrom does. Once the
    // storage is loaded or truncated it only reads, when everything queued is written, up to the
    // write position: an item behind it belongs to a transaction that was undone. A callback may
    // use the storage. One that loads, squeezes, truncates or clears everything ends the scan with
    // RC_ENUM_STOP, for the items have moved.
    u32 ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, void* ctx) override;

    // The load scan: checks every item from `startOffset` on (0 and 1056: from the file's first
    // commit block), hands them out and places the write position behind the last valid commit
    // block. Records behind that one have been handed out too: the caller drops those above
    // GetFlushedRev. Faults in the file end the scan with a warning and are no error, unless there
    // is no commit block at all or, from the beginning, none before the first record
    // (RC_FILE_CORRUPT). Errors also: RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_SHORT_READ when the system
    // gives fewer bytes than the file has, a callback's result; the write position then stays where
    // it was.
    // REQUIRES: startOffset is 0 or at least 1024.
    u32 ScanFileFrom(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, i64 startOffset,
                     void* ctx);

    // --- Reading a file that another process writes (live_file.cpp). REQUIRES: opened read-only.

    // To be called before a load: opens the file anew that the path leads to now. *goesOn receives
    // whether it holds what was loaded, perhaps with more behind it; it is false before the first
    // load. Errors: as Open; what was loaded, and the handle on it, then stays.
    // REQUIRES: no enumeration runs.
    u32 Refresh(bool* goesOn);
    // The load scan from where the last one ended. Arguments and errors: as ScanFileFrom;
    // kContentChanged also when the writer started the file over meanwhile or took something back.
    // REQUIRES: Refresh has said that the file goes on.
    u32 ScanOn(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb, void* ctx);
    // The fields of the header that belong to the client, as one moment had them.
    // Errors: RC_SYSTEM_ERROR; kContentChanged when they never stand still.
    u32 ReadMarks(u32* lifenum, i64* clearOldRev);
    // RC_OK when everything that was read since the load began is the content that was loaded, or
    // the file is not read-only. Errors: as ContentMark::Check.
    u32 CheckContent();

    // To be called when a load has succeeded. Where its scan ended at bytes that are not zero,
    // looks behind them for commit blocks that link to each other: damage in the middle of the
    // data, not its end (docs/storage-file.md). Logs that as an error and, with kKeepCopy, keeps a
    // copy of everything behind the last valid commit block beside the file. A copy that fails is
    // logged, and tried once more before the first write, which is what destroys those bytes.
    void KeepTailIfDamaged(TailCare care);

    // To be called behind a load scan from `loadedFrom`. Reads the heads and the chain of commit
    // blocks of the whole file, also what lies in front of that offset, and looks behind their end
    // for damage; changes nothing (whole_check.cpp). RC_FILE_CORRUPT, logged, for damage in the
    // middle; RC_BAD_DATA when the load's offset, a claim of the index, was no place to begin.
    // Errors also: RC_SYSTEM_ERROR, RC_NO_MEMORY, RC_SHORT_READ.
    u32 CheckWhole(i64 loadedFrom);

    // Hands the committed records of `range` to `visitor`. *completed is false if and only if the
    // visitor stopped it, whose result is then returned. The visitor may use this object; what it
    // writes is not enumerated. A record above the range ends it, if that can be believed: else
    // damage might hide records.
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

    // The revision of the record that ends at `offset`, or that the commit block which ends there
    // commits: no record before `offset` has a higher one. Looks at the last 64 KiB before it.
    // RC_NOT_FOUND when nothing is recognised there; RC_SYSTEM_ERROR, RC_SHORT_READ, RC_NO_MEMORY.
    // REQUIRES: offset is at least 1056.
    u32 FindRevBefore(i64 offset, i64* rev);

    // --- Writing -----------------------------------------------------------------------------

    // Whether each commit, and each commit block of a clear, is flushed to the disk, which may fail
    // after OnWriteToFile was called for it. Set by Open.
    bool ForcesFlushes() const { return m_state.forceFlush; }

    u32 BeginTransaction();
    // Flushes to the disk, with force_flush, and forgets what the read cache holds.
    u32 Commit();
    // Goes back to BeginTransaction: the bytes written since are dead.
    u32 RollbackWrites();
    // Zeroes what was rolled back, so that no load serves it; see StorageWriter::ClearUndone.
    u32 ClearUndone();

    // Hands one run of items to the writer; arguments as StorageWriter::Write. RC_BAD_DATA when
    // `lastRevision` is below the last flushed revision.
    u32 WriteItems(u8* data, u32 size, TCommitBlock* commitBlock, K9eReplBlock* memoryBlock,
                   i64 lastRevision, std::atomic<i64>* filePosition);

    // Waits until everything queued is written; until some block has no queued write any more.
    u32 CompleteAsyncTasks();
    u32 WaitReleaseBlock();
    // Whether the caller is the writer's own thread. Needs no lock.
    bool IsOnWritersThread() const { return m_writer != nullptr && m_writer->IsOnOwnThread(); }
    // After a failed operation: whether something queued may still be written.
    bool MayStillWrite() const { return m_writer != nullptr && m_writer->MayStillWrite(); }

    // --- Removing. None of it while a transaction of the file is open. A visitor of an enumeration
    // that removes something must end that enumeration.

    // Appends a commit block that says: records below `rev`, or below the clear revision if that is
    // higher, are not served any more. With force_flush it is on the disk when this returns; the
    // asynchronous writer has only queued it. A failure leaves the clear revision as it was, unless
    // the notification has written behind the block.
    u32 SetClearRev(i64 rev);

    // Starts the file over: without items, with `rev` as its clear and commit revision and with
    // these header fields. The file on disk shrinks to file_initial_size if that is set. When this
    // fails the beginning of the file may be damaged.
    u32 TruncateToClearRev(i64 rev, u32 lifenum, i64 clearOldRev);

    // Copies what is kept into a new file, which takes the old one's place; *shift receives what
    // is to be added to the file offset of every kept item. The new file is made under the name
    // of the old one and ".temporary", which must be free; at any moment the file's name leads to
    // the old or the new file, unless the file system has no hard links: then, with keepBackup,
    // the name is free for a moment while the backup already stands.
    // A failure up to the call of beforeReplace leaves the old file open, perhaps with its clear
    // revision raised; one after it closes the file.
    // REQUIRES: request.commitOffset is the offset of a commit block.
    u32 Squeeze(const SqueezeRequest& request, i64* shift);

    // The highest committed revision.
    u32 GetFlushedRev(i64* rev) const;
    // The file's length as last known, in bytes; 0 when closed. Never below the written data.
    i64 FileSize() const;

  private:
    class FileItems;
    struct FileItem;

    u32 LookAtItem(FileItems& items, const FileEnumRange& range, FileItem* item);
    u32 CheckRangeEnd(FileItems& items, const FileEnumRange& range, const TRecordHead& head);

    u32 OpenFile(const std::string& path, const char* connStr, FileUse use);
    u32 ReadSettings(const char* connStr);
    u32 MakeWriter(const char* connStr);

    u32 ReadHeader(TFileHeader* header);
    template <typename Change>
    u32 UpdateHeader(Change change);
    template <typename Action>
    u32 WithHeaderPosition(Action action);

    bool IsReadOnly() const { return IsOpen() && m_writer == nullptr; }
    // Where a scan of a live file begins: at `offset`, or behind what an earlier scan accepted.
    struct LiveStart {
        i64 offset = kFirstCommitOffset;
        bool fromHint = false;
        const FileScan::Result* resume = nullptr;
    };
    u32 LoadLive(const FileScanCallbacks& callbacks, const LiveStart& start);
    u32 ScanLive(const FileScanCallbacks& callbacks, const LiveStart& start, i64 enough,
                 FileScan::Result* result);
    u32 LookAhead(const LiveStart& start, i64 enough, FileScan::Result* found);
    // Whether the writer has committed more behind the end of a scan meanwhile.
    bool GoesOnBehind(const FileScan::Result& end);
    u32 HandOut(const FileScanCallbacks& callbacks, const LiveStart& start,
                const FileScan::Result& ahead, FileScan::Result* result);
    u32 ScanLiveForHost(const FileScanCallbacks& callbacks);
    void MarkContent(const FileScan::Result& loaded);
    u32 CheckEnumerated();

    u32 ScanForHost(const FileScanCallbacks& callbacks);
    // The scan's end becomes the write position and the last commit block.
    u32 TakeScanEnd(const FileScan::Result& result);
    // Whether a scan from there need not begin with the file's first commit block.
    static bool IsScanHint(i64 startOffset) {
        return startOffset != 0 && startOffset != kFirstCommitOffset &&
               startOffset != kFirstItemOffset;
    }
    // Whether what lies behind the end of a scan goes on, which is logged as an error.
    u32 LookForDamage(const FileScan::Result& end, bool* damaged);
    u32 ScanWhole(FileScan::Result* whole);
    bool KeepTail();
    // To be called before the bytes behind the write position change.
    void KeepTailBeforeWriting() {
        if (m_tailUnlooked || m_tailUnkept) [[unlikely]] {
            KeepTailAfterAll();
        }
    }
    void KeepTailAfterAll();

    u32 VisitItem(FileItems& items, const FileItem& item, FileItemVisitor visitor, void* ctx,
                  bool* completed);

    // Squeezing (file_squeeze.cpp)
    u32 SqueezeFile(const SqueezeRequest& request, const SqueezeNames& names, i64* shift);
    u32 CopyAndReplace(const SqueezeRequest& request, const SqueezeNames& names, i64 oldDataSize,
                       i64* written);
    u32 CheckOldBackup(const std::string& backup);
    u32 FlushAndReadStart(i64 commitOffset, TFileHeader* header, TCommitBlock* commitBlock);
    u32 CopyToTemp(platform::File& temporary, i64 from, i64* written);
    u32 Replace(i64 backupSize, const SqueezeNames& names, TemporaryFile& temporary, bool* renamed);
    u32 CutTo(i64 dataSize, const std::string& path);
    u32 OpenSqueezed(const std::string& path, i64 writePos);

    // RC_SHORT_READ, RC_SYSTEM_ERROR, logged.
    u32 ReadAt(i64 offset, void* buffer, u32 size);
    // To be called when bytes of the file may have changed.
    void InvalidateReads();

    // The read buffers of the innermost enumeration that runs. Each level has its own: the record
    // that a visitor holds stays as it is while the visitor enumerates.
    u32 EnumCache(ReadCacheManager** cache);
    u32 AddNestedCache();

    // Given up to a writing thread that could not be ended.
    std::unique_ptr<StorageFileState> m_ownState = std::make_unique<StorageFileState>();
    // --- Set by Open, then constant until Close
    StorageFileState& m_state = *m_ownState;
    std::unique_ptr<StorageWriter> m_writer;  // null when read-only

    // --- Reading
    platform::TrackedFile m_file;  // also has the writer's lock, unless m_lockHolder is open
    // After a squeeze: the handle that made the new file, and locked it before it got its name.
    platform::File m_lockHolder;
    bool m_fileLock = true;  // other writers are kept away, where the file system has locks
    ReadCacheManager m_readCache;
    std::vector<std::unique_ptr<ReadCacheManager>> m_nestedCaches;  // of levels 2, 3, ...
    u32 m_enumDepth = 0;                                            // enumerations that run
    u64 m_readGeneration = 0;  // changes when the read buffers were emptied

    SolidStorageOwner* const m_owner;  // may be null
    // The write position was placed by a load or a truncation, and what was committed may follow
    // it.
    bool m_inUse = false;
    // Of what was last handed to the writer, else 0. In the middle of a flush it is above the last
    // committed revision: the flush's records are in the file, its commit block may not be.
    i64 m_lastWrittenRev = 0;
    // Changes when the file's items may lie elsewhere than before: a load, a truncation, a squeeze.
    u64 m_layoutGeneration = 0;

    ContentMark m_content;        // when read-only: of what is loaded, or being loaded
    FileScan::Result m_scanEnd;   // of the scan that placed the write position
    bool m_tailUnlooked = false;  // there may be a damaged tail: looking for it failed
    bool m_tailUnkept = false;    // a damaged tail is in the file only
};

}  // namespace k9erepl

#endif  // K9EREPL_SOLID_SOLID_STORAGE_H
