// The abstract classes behind the handles of storage.h, for hosts that are written in C++ and link
// against the same ABI. The order of the virtual operations is part of the contract; none is ever
// inserted or moved. The storage object in src/engine and the storage file in src/solid implement
// them. docs/porting.md, "The interfaces' tables", has the numbers of the operations.
#ifndef K9EREPL_STORAGE_INTERFACES_H
#define K9EREPL_STORAGE_INTERFACES_H

#include <k9erepl/storage.h>

#include <cstdint>

// Empty bases that name the generation of an interface.
class IK9eReplStorageVersion {};
class IK9eReplDSVersion {};

// Reference counting. A new object has one reference.
class IRc {
  public:
    virtual ~IRc() = default;
    // Both return the new count. The Release that reaches 0 destroys the object, on the calling
    // thread. Inside a callback, the outermost call destroys it when it leaves the object.
    virtual std::uint32_t AddRef() = 0;
    virtual std::uint32_t Release() = 0;
};

// The storage as a source of data for other components of the host. Results are result codes
// unless said otherwise; arguments without a name are ignored.
class IK9eReplDS : public IRc, public IK9eReplDSVersion {
  public:
    virtual std::uint32_t Reserved3(std::uintptr_t) = 0;  // does nothing, RC_OK
    virtual std::uint32_t Reserved4(std::uintptr_t) = 0;  // does nothing, RC_OK
    virtual std::uint32_t Reserved5(std::uintptr_t) = 0;  // RC_NOT_SUPPORTED
    // Tells whether `other` is this object's IK9eReplDS pointer.
    virtual bool IsSame(const void* other) = 0;
    // The same as EnumRecords from `fromRev` to the last record.
    virtual std::uint32_t EnumFrom(std::uint32_t, std::uint32_t, std::uint32_t,
                                   std::int64_t fromRev, std::uint32_t, K9eReplEnumCb cb,
                                   void* ctx) = 0;
    // Writes the first revision of the oldest block, 1 when there is none; RC_NOT_OPEN before Load.
    virtual std::uint32_t GetFirstRev(std::uint32_t, std::int64_t* out) = 0;
    // Writes the next revision to be assigned, despite the name; RC_NOT_OPEN before Load.
    virtual std::uint32_t GetLastRev(std::uint32_t, std::int64_t* out) = 0;
    virtual std::uint32_t GetClearRev(std::int64_t* out) = 0;              // the revision mark
    virtual std::uint32_t GetFlag(std::uint32_t, std::uint8_t* out) = 0;   // writes 0
    virtual std::uint32_t Reserved12(std::uintptr_t, std::uintptr_t) = 0;  // RC_NOT_SUPPORTED
    virtual std::uint32_t Reserved13(std::uintptr_t, std::uintptr_t,
                                     std::uintptr_t) = 0;  // RC_NOT_SUPPORTED
    // Flushes what the flush mode's threshold or time-out calls for, if the storage's lock is free
    // at once. For a host's idle loop; the index thread calls it every flush_timeout milliseconds.
    virtual std::uint32_t FlushOnIdle() = 0;
};

// The operations behind the exported functions; see storage.h for what each does.
class IK9eReplStorageBase : public IK9eReplStorageVersion {
  public:
    virtual ~IK9eReplStorageBase() = default;
    virtual std::uint32_t SetLifenum(std::uint32_t lifenum) = 0;
    virtual std::uint32_t GetLifenum(std::uint32_t* out) = 0;
    virtual std::uint32_t Load() = 0;
    virtual std::uint32_t Truncate() = 0;
    virtual std::uint32_t BeginTransaction() = 0;
    virtual std::uint32_t Commit() = 0;
    virtual std::uint32_t Rollback() = 0;
    virtual std::uint32_t Insert(K9eReplRec* rec) = 0;
    virtual std::uint32_t InsertP(K9eReplRec* rec) = 0;
    virtual std::uint32_t EnumRecords(std::int64_t fromRev, std::int64_t toRev, K9eReplEnumCb cb,
                                      void* cbContext) = 0;
    virtual std::uint32_t ClearOldRev(std::int64_t rev, std::uint32_t mode) = 0;
    virtual std::uint32_t GetClearOldRev(std::int64_t* out) = 0;
    virtual std::uint32_t GetNextRev(std::int64_t* out) = 0;
    // Writes the object's IK9eReplDS pointer; no reference is added. RC_INVALID_ARG for null.
    virtual std::uint32_t GetDS(IK9eReplDS** out) = 0;
    virtual std::uint32_t SetOnFlushCallback(K9eReplFlushCb cb, void* cbContext) = 0;
    virtual std::uint32_t SetOnWriteToFileCallback(K9eReplFlushCb cb, void* cbContext) = 0;
};

// The storage object as a whole. A handle of storage.h is a pointer to this interface; its
// IK9eReplDS lies one pointer further into the object.
class IK9eReplStorage : public IK9eReplStorageBase, public IK9eReplDS {};

// Receives a record of a file scan: the file offset of the record's first byte, and the record.
// A non-zero result ends the scan and becomes its result.
using K9eReplScanRecordCb = std::uint32_t(K9EREPL_CALL*)(std::uint64_t offset,
                                                         const K9eReplRec* rec, void* ctx);
// Receives a commit block of a file scan: records below clearRev are no longer part of the
// storage, commitRev is the highest revision that the block commits.
using K9eReplScanCommitCb = std::uint32_t(K9EREPL_CALL*)(void* ctx, std::int64_t clearRev,
                                                         std::int64_t commitRev);

// The storage file, as K9eReplStorageGetLLStorage hands it out; it belongs to the storage and is
// valid as long as the handle. It may be called at any time and from any thread, like the functions
// of storage.h: it takes the storage's lock, which is held while callbacks run, and a callback may
// call the library with the storage's handle.
class IK9eReplLLStorage {
  public:
    virtual ~IK9eReplLLStorage() = default;
    // Reads the file from its beginning, checks it, and hands out every record and commit block
    // that is in the file. Records that are committed but not flushed yet are not in the file.
    // Waits first until everything queued is written. On a storage that is loaded or truncated it
    // changes nothing. Before that it also places the storage's write position behind the last
    // valid commit block; loading does that again.
    // Errors: RC_WRONG_STATE in a forked child; RC_ENUM_STOP when a callback moved the file's items
    // by a load, a truncation, a squeeze or by clearing everything; RC_INVALID_ARG when a callback
    // is null; RC_NO_WRITER when no file is open; RC_FILE_CORRUPT when no commit block can be
    // found; RC_SYSTEM_ERROR, RC_NO_MEMORY, the code of a write that failed, or a callback's
    // result.
    virtual std::uint32_t ScanFile(K9eReplScanRecordCb recordCb, K9eReplScanCommitCb commitCb,
                                   void* ctx) = 0;
};

#endif  // K9EREPL_STORAGE_INTERFACES_H
