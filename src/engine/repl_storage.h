// The storage object behind a handle: settings, memory blocks, transactions, flushing,
// enumeration, loading. Each thing it does has a file of its own in this folder; the exported
// functions call its slots.
#ifndef K9EREPL_ENGINE_REPL_STORAGE_H
#define K9EREPL_ENGINE_REPL_STORAGE_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine/block_inserter.h"
#include "engine/block_list.h"
#include "engine/clear_search.h"
#include "engine/flush_policy.h"
#include "engine/flush_run.h"
#include "engine/load_plan.h"
#include "engine/open_settings.h"
#include "engine/revision.h"
#include "engine/storage_lock.h"
#include "index/index_object.h"
#include "memory/blocks_pool_manager.h"
#include "platform/int_types.h"
#include "platform/process.h"
#include "solid/solid_storage.h"
#include "support/exception_barrier.h"
#include "support/flush_callback.h"
#include "support/timing_set.h"

namespace k9erepl {

enum class StorageState : u32 {
    kClosed = 1,       // not loaded yet
    kOpen = 2,         // everything is allowed
    kBroken = 3,       // a setting was refused or stored data cannot be trusted: nothing is
    kFlushFailed = 4,  // a flush failed: Commit tries again, Rollback gives up
};

// Visits one record: its file offset, kUnknownOffset while it is not in the file, and the record.
// Non-zero ends the walk and becomes its result.
using RecordVisitor = u32 (*)(i64 offset, const K9eReplRec* rec, void* ctx);

// How ClearOldRev treats the storage file; every other number is a logical clear too.
enum class ClearMode : u32 {
    kLogical = 0,        // raises the file's clear revision
    kSqueeze = 1,        // replaces the file by what is kept of it
    kSqueezeBackup = 2,  // the same, and keeps the old file
    kMark = 4,           // only remembers the revision for the client
};
inline bool Squeezes(ClearMode mode) {
    return mode == ClearMode::kSqueeze || mode == ClearMode::kSqueezeBackup;
}

// One recursive lock guards everything; members that are read without it are atomic. Client
// callbacks run under it and may call back in.
class CK9eReplStorage final : public IK9eReplStorage {
  public:
    // Defaults, state Closed, one reference. May throw std::bad_alloc.
    CK9eReplStorage();

    // Reads the settings of `connStr`, opens the storage file unless flush_mode is NoFlush, and
    // prepares everything that Load needs. Called once. A refused setting or a failed step leaves
    // the object Broken. Errors: see K9eReplStorageOpen.
    u32 Open(const char* connStr);

    // False in a forked child of the process that opened the storage. Then only Release may be
    // called, which takes nothing away from the parent.
    bool BelongsToThisProcess() const { return m_forkGeneration == platform::ForkGeneration(); }

    // The storage-file object; open or not.
    CSolidStorage& SolidStorage() { return m_solid; }

    // IRc and IK9eReplDS
    std::uint32_t AddRef() override;
    std::uint32_t Release() override;
    std::uint32_t Reserved3(std::uintptr_t) override { return RC_OK; }
    std::uint32_t Reserved4(std::uintptr_t) override { return RC_OK; }
    std::uint32_t Reserved5(std::uintptr_t) override { return RC_NOT_SUPPORTED; }
    bool IsSame(const void* other) override;
    std::uint32_t EnumFrom(std::uint32_t, std::uint32_t, std::uint32_t, std::int64_t fromRev,
                           std::uint32_t, K9eReplEnumCb cb, void* ctx) override;
    std::uint32_t GetFirstRev(std::uint32_t, std::int64_t* out) override;
    std::uint32_t GetLastRev(std::uint32_t, std::int64_t* out) override;
    std::uint32_t GetClearRev(std::int64_t* out) override;
    std::uint32_t GetFlag(std::uint32_t, std::uint8_t* out) override;
    std::uint32_t Reserved12(std::uintptr_t, std::uintptr_t) override { return RC_NOT_SUPPORTED; }
    std::uint32_t Reserved13(std::uintptr_t, std::uintptr_t, std::uintptr_t) override {
        return RC_NOT_SUPPORTED;
    }
    std::uint32_t FlushOnIdle() override;

    // IK9eReplStorage
    std::uint32_t SetLifenum(std::uint32_t lifenum) override;
    std::uint32_t GetLifenum(std::uint32_t* out) override;
    std::uint32_t Load() override;
    std::uint32_t Truncate() override;
    std::uint32_t BeginTransaction() override;
    std::uint32_t Commit() override;
    std::uint32_t Rollback() override;
    std::uint32_t Insert(K9eReplRec* rec) override;
    std::uint32_t InsertP(K9eReplRec* rec) override;
    std::uint32_t EnumRecords(std::int64_t fromRev, std::int64_t toRev, K9eReplEnumCb cb,
                              void* cbContext) override;
    std::uint32_t ClearOldRev(std::int64_t rev, std::uint32_t mode) override;
    std::uint32_t GetClearOldRev(std::int64_t* out) override;
    std::uint32_t GetNextRev(std::int64_t* out) override;
    std::uint32_t GetDS(IK9eReplDS** out) override;
    std::uint32_t SetOnFlushCallback(K9eReplFlushCb cb, void* cbContext) override;
    std::uint32_t SetOnWriteToFileCallback(K9eReplFlushCb cb, void* cbContext) override;

  protected:
    // After the last Release, once no call is under way: flushes what is committed when the storage
    // is Open, then tears down. In a forked child it only frees memory.
    ~CK9eReplStorage() override;

  private:
    friend struct StorageAccess;  // the tests' eyes
    friend class StorageLock;     // destroys the storage
    using Guard = std::lock_guard<StorageLock>;

    // What is being done to the storage file, as callbacks find it. They may insert and commit,
    // except where FlushMayStillFail; unless there is no such work, what they commit is flushed
    // later.
    enum class FileWork {
        kNone,
        kWriting,    // nobody else may touch the file, nor move records
        kNotifying,  // a flush is complete; OnFlush is told
    };
    class FileWorkScope;

    StorageState State() const { return m_state.load(std::memory_order_relaxed); }
    void SetState(StorageState state) { m_state.store(state, std::memory_order_relaxed); }
    int StateForLog() const { return static_cast<int>(State()); }
    bool HasFile() const { return m_settings.flushMode != FlushMode::kNoFlush; }
    bool IsReadOnly() const { return m_settings.readOnly; }

    // For the calls that change something. RC_OK, or RC_NOT_SUPPORTED in a read-only storage, which
    // is logged: `call` is the name that clients know.
    u32 RefuseIfReadOnly(const char* call) const;

    template <typename Query>
    u32 QueryWhenOpen(std::int64_t* out, Query query);

    // The storage file's calls for hosts (host_calls.cpp)
    class FileOwner final : public SolidStorageOwner {
      public:
        explicit FileOwner(CK9eReplStorage& storage) : m_storage(storage) {}
        u32 RunAsCall(u32 (*work)(void* ctx), void* ctx) override;

      private:
        CK9eReplStorage& m_storage;
    };

    // The end (data_source.cpp)
    void Destroy() { delete this; }
    void EndInChild();
    // Does `work` for a host that calls through an interface, past the exported functions.
    template <typename Work>
    u32 AsCall(const char* call, Work work) {
        return BelongsToThisProcess() ? WithoutExceptions(call, work) : u32{RC_WRONG_STATE};
    }

    // Opening and tearing down (storage_life.cpp)
    u32 OpenLocked(const char* connStr);
    u32 OpenSolidStorage(const char* connStr);
    u32 OpenInMemory(const char* connStr);
    void MakePool();
    u32 MakeIndex(const char* connStr);
    u32 Break(u32 rc);
    void FlushForTheLastTime();
    void FlushAllThatIsCommitted();
    void Deinit();
    void Reset();

    // Transactions (transactions.cpp)
    bool FlushMayStillFail() const;
    u32 BeginOutermost();
    u32 InsertAt(K9eReplRec* rec, i64 rev);
    u32 PlaceInTransaction(const K9eReplRec& rec, bool implicit);
    u32 CommitOutermost();
    void ReopenTransaction(i64 startRev, u64 startUsed);
    void NotifyNoFlushCommit();
    void NotifyFlushed(i64 lastRev);
    void SaveIndexIfGrown();
    u32 ShrinkCache();
    void RetryFlushOutsideTransaction();
    void LeaveFlushFailed();
    void ClearUndoneWrites();

    // Flushing (flushing.cpp)
    bool FileIsIdle() const { return m_fileWork == FileWork::kNone; }
    bool FlushNeeded() const { return FileIsIdle() && m_policy.FlushNeeded(m_settings); }
    u32 Flush();
    u32 FlushNow();
    u32 FlushToFile();
    u32 WriteFlush(i64 limit, i64* lastWritten);
    u32 WriteBlock(i64 firstRev, K9eReplBlock& block, const FlushRun& run);
    u32 RememberPiece(K9eReplBlock& block, std::atomic<i64>& fileOffset);
    u32 WriteCommitBlock(i64 lastRev);
    u32 CommitFlush();
    void UndoFlush();
    u32 FailFlushAtTop(u32 rc);
    u32 FlushWhenIdle();

    // Enumeration (enumeration.cpp)
    class RecordWalk;
    u32 EnumWithVisitor(i64 fromRev, i64 toRev, RecordVisitor visitor, void* ctx);

    // Clearing (clearing.cpp, clearing_file.cpp, truncation.cpp)
    bool MayRemoveNow() const;
    u32 RefuseToClear(bool inTransaction) const;
    u32 SetRevisionMark(i64 rev);
    u32 ClearBelow(i64 rev, ClearMode mode);
    u32 FlushBeforeClear(i64 rev);
    u32 ClearInMemory(i64 rev);
    void ForgetEverything();
    void SaveIndexAfterClear(ClearMode mode);
    u32 ClearInFile(i64 rev, ClearMode mode);
    u32 ClearWholeFile(i64 rev);
    u32 FindFirstKept(BlockIndex::const_iterator holding, ClearMode mode, ClearSearch* search);
    u32 WaitForBlockWrites(BlockIndex::const_iterator holding);
    u32 SearchFirstKept(BlockIndex::const_iterator holding, ClearSearch* search);
    u32 SqueezeFile(const ClearSearch& search, ClearMode mode, i64* shift);
    u32 RaiseClearRev(const ClearSearch& search);
    void ForgetBelow(i64 holdingKey, const ClearSearch& search, i64 shift);
    bool RestartIndexIfFinished();
    u32 EmptyIndexFile();
    u32 TruncateFile();

    // Loading (loading.cpp, load_finish.cpp)
    u32 LoadLocked();
    void AbandonLoad();
    u32 LoadOnce(const IndexFileContent& index, LoadPlan* plan);
    u32 LoadWithoutOpenFile(const IndexFileContent& index, LoadPlan* plan);
    u32 LoadFromOpenFile(const IndexFileContent& index, LoadPlan* plan);
    LoadPlan PlanLoad(CSolidStorage& file, const IndexFileContent& index);
    u32 RunLoadPass(CSolidStorage& file, LoadPlan* plan);
    u32 CheckAllOf(CSolidStorage& file, LoadPlan* plan);
    u32 RunLoadPassFrom(CSolidStorage& file, i64 startOffset);
    bool LoadedAllThatIsKept(CSolidStorage& file, const LoadPlan& plan) const;
    u32 FinishLoadFromOpenFile(i64 lowestRev);
    // Loading a read-only storage (live_loading.cpp)
    u32 LoadLive();
    u32 LoadLiveOnce(bool* loaded);
    u32 LoadOn();
    // The callbacks of the scan that a load runs; `ctx` is the storage.
    static std::uint32_t PlaceLoadedRecord(std::uint64_t offset, const K9eReplRec* rec, void* ctx);
    static std::uint32_t TakeLoadedCommit(void* ctx, std::int64_t clearRev, std::int64_t commitRev);
    u32 OnLoadRecord(i64 offset, const K9eReplRec& rec);
    u32 OnLoadCommit(i64 clearRev, i64 commitRev);
    u32 FinishLoad(i64 nextRevOfFile, CSolidStorage* file);
    u32 CutUncommitted();
    u32 CutClearedAfterLoad(CSolidStorage& file);
    u32 StartIndex();

    // --- Constant after Open
    const u32 m_forkGeneration = platform::ForkGeneration();
    OpenSettings m_settings;
    std::string m_connStr;
    BlockInserter m_inserter;
    u32 m_timeFlush = 0;
    u32 m_timeOnFlushCb = 0;
    u32 m_timeForcedFlush = 0;
    u32 m_timeFlushOnIdle = 0;
    u32 m_timeWriteData1 = 0;
    u32 m_timeWriteData2 = 0;

    // --- Self-synchronised
    std::atomic<u32> m_refCount{1};
    StorageLock m_lock{*this};
    FlushCallback m_onFlush;
    FlushCallback m_onWriteToFile;
    FlushPolicy m_policy;
    std::atomic<i64> m_nextRev{1};  // the revision that the next record receives
    std::atomic<StorageState> m_state{StorageState::kClosed};

    // --- Guarded by m_lock
    CBlocksPoolManager m_pool;
    BlockList m_blocks;
    FileOwner m_fileOwner{*this};
    CSolidStorage m_solid{&m_fileOwner};
    std::unique_ptr<IndexObject> m_index;  // null without a storage file, and when read-only
    TimingSet m_timing;

    i64 m_loadedRev = 0;        // while loading: the record placed last
    i64 m_closedRev = 0;        // while loading: the last record with a commit block behind it
    i64 m_oldestRev = 0;        // the lowest revision that is still served
    i64 m_flushedRev = 0;       // the highest revision in the file
    bool m_beginMoved = false;  // the file's first record is not the storage's first record
    u32 m_lifenum = 0;
    i64 m_clearOldRev = 0;  // the revision mark

    u32 m_transDepth = 0;       // nesting depth of the open transaction
    bool m_rolledBack = false;  // Rollback came since the last outermost Begin
    i64 m_transStartRev = 0;    // m_nextRev at the outermost Begin; 0 outside a transaction
    u64 m_transStartUsed = 0;   // used bytes of the newest block at that time
    u64 m_transDataSize = 0;    // bytes of the transaction's records

    bool m_shrinkPending = false;    // the last flush left more blocks than the cache may keep
    std::size_t m_indexedCount = 0;  // entries of the block index at the last save request
    FileWork m_fileWork = FileWork::kNone;
    bool m_clearing = false;  // a clear is under way: callbacks start no second one
    u32 m_flushDepth = 0;    // flushes that have not returned; a clear inside OnFlush flushes again
    u32 m_walks = 0;         // enumerations that run
    u32 m_onFlushDepth = 0;  // calls of OnFlush that have not returned
    // What a failed flush has to take back; kept between flushes for its memory.
    struct FlushedPiece {
        K9eReplBlock* block;
        u64 flushedEndBefore;
        std::atomic<i64>* fileOffset;  // null unless this flush filled it in
    };
    std::vector<FlushedPiece> m_flushedPieces;
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_REPL_STORAGE_H
