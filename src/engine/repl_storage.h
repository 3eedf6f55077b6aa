// The storage object behind a handle: its slots, its lock, and the objects that do the work. The
// exported functions call its slots, which take the lock and call these objects in the right order.
// docs/architecture.md says which object owns what, and which thread may touch what ("Threads").
#ifndef K9EREPL_ENGINE_REPL_STORAGE_H
#define K9EREPL_ENGINE_REPL_STORAGE_H

#include <k9erepl/storage_interfaces.h>

#include <atomic>
#include <mutex>
#include <string>

#include "engine/block_store.h"
#include "engine/clearer.h"
#include "engine/client_marks.h"
#include "engine/flusher.h"
#include "engine/index_keeper.h"
#include "engine/open_settings.h"
#include "engine/record_walk.h"
#include "engine/storage_lock.h"
#include "engine/storage_status.h"
#include "engine/transaction.h"
#include "platform/int_types.h"
#include "platform/process.h"
#include "solid/solid_storage.h"
#include "support/exception_barrier.h"
#include "support/result.h"

namespace k9erepl {

// One recursive lock guards everything; members that are read without it are atomic. Client
// callbacks run under the lock, on the thread that holds it, and may call back in. Only
// OnWriteToFile of an asynchronous writer runs without the lock, on the writing thread.
//
// The object counts its references. Nobody deletes it directly: the last Release does, at once or
// when the call that is under way returns.
class CK9eReplStorage final : public IK9eReplStorage {
  public:
    // Defaults, state Closed, one reference, which is the caller's. May throw std::bad_alloc.
    CK9eReplStorage() = default;

    // Reads the settings of `connStr`, opens the storage file unless flush_mode is NoFlush, and
    // prepares everything that Load needs. To be called once. A refused setting or a failed step
    // leaves the object Broken.
    // Errors: see K9eReplStorageOpen.
    [[nodiscard]] ResultCode Open(const char* connStr);

    // False in a forked child of the process that made the storage. There only Release may be
    // called, which takes nothing away from the parent. Needs no lock.
    bool BelongsToThisProcess() const { return m_forkGeneration == platform::ForkGeneration(); }

    // The storage-file object, open or not. It lives as long as this object.
    CSolidStorage& SolidStorage() { return m_file; }

    // IRc and IK9eReplDS
    std::uint32_t AddRef() override {
        return m_refCount.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    std::uint32_t Release() override;
    std::uint32_t Reserved3(std::uintptr_t) override { return RC_OK; }
    std::uint32_t Reserved4(std::uintptr_t) override { return RC_OK; }
    std::uint32_t Reserved5(std::uintptr_t) override { return RC_NOT_SUPPORTED; }
    bool IsSame(const void* other) override { return other == static_cast<IK9eReplDS*>(this); }
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
    // Called by the index thread and by hosts: flushes what is due. Never waits for the lock.
    std::uint32_t FlushOnIdle() override;

    // IK9eReplStorage
    std::uint32_t SetLifenum(std::uint32_t lifenum) override;
    std::uint32_t GetLifenum(std::uint32_t* out) override;
    std::uint32_t Load() override;
    std::uint32_t Truncate() override;
    std::uint32_t BeginTransaction() override {
        return Change("BeginTransaction", [this] { return m_transaction.Begin(); });
    }
    std::uint32_t Commit() override {
        return Change("Commit", [this] { return m_transaction.Commit(); });
    }
    std::uint32_t Rollback() override;
    std::uint32_t Insert(K9eReplRec* rec) override {
        return Change("Insert", [&] { return m_transaction.Insert(rec); });
    }
    std::uint32_t InsertP(K9eReplRec* rec) override;
    std::uint32_t EnumRecords(std::int64_t fromRev, std::int64_t toRev, K9eReplEnumCb cb,
                              void* cbContext) override;
    std::uint32_t ClearOldRev(std::int64_t rev, std::uint32_t mode) override;
    std::uint32_t GetClearOldRev(std::int64_t* out) override;
    std::uint32_t GetNextRev(std::int64_t* out) override {
        *out = m_blocks.NextRev();
        return RC_OK;
    }
    std::uint32_t GetDS(IK9eReplDS** out) override;
    std::uint32_t SetOnFlushCallback(K9eReplFlushCb cb, void* cbContext) override {
        m_flusher.SetOnFlush(cb, cbContext);
        return RC_OK;
    }
    std::uint32_t SetOnWriteToFileCallback(K9eReplFlushCb cb, void* cbContext) override {
        return m_flusher.SetOnWriteToFile(cb, cbContext);
    }

  protected:
    // Runs after the last Release, once no call is under way. Flushes what is committed when the
    // state allows it, then closes the files and stops the threads. In a forked child it only frees
    // memory.
    ~CK9eReplStorage() override;

  private:
    // Lets the tests look inside.
    friend struct StorageAccess;
    using Guard = std::lock_guard<StorageLock>;

    // Runs a host's call of the storage file as a call of this storage, under its lock.
    class FileOwner final : public SolidStorageOwner {
      public:
        explicit FileOwner(CK9eReplStorage& storage) : m_storage(storage) {}
        [[nodiscard]] ResultCode RunAsCall(u32 (*work)(void* ctx), void* ctx) override;

      private:
        CK9eReplStorage& m_storage;
    };

    // Does `work`, which changes the storage, under the lock. In a read-only storage it answers
    // RC_NOT_SUPPORTED, which is logged with `call`, the name that clients know.
    template <typename Work>
    [[nodiscard]] ResultCode Change(const char* call, Work work) {
        // Needs no lock: settings are constant after Open.
        if (m_settings.readOnly) [[unlikely]] {
            return RefuseReadOnly(call);
        }
        const Guard guard(m_lock);
        return work();
    }
    // RC_NOT_SUPPORTED, logged.
    [[nodiscard]] ResultCode RefuseReadOnly(const char* call) const;
    // Does `work` for a host that calls through an interface and not through an exported function:
    // no exception gets out, and in a forked child it answers RC_WRONG_STATE.
    template <typename Work>
    [[nodiscard]] ResultCode AsCall(const char* call, Work work) {
        return BelongsToThisProcess() ? WithoutExceptions(call, work) : u32{RC_WRONG_STATE};
    }
    // RC_INVALID_ARG for a null `out`, RC_WRONG_STATE in a forked child.
    [[nodiscard]] ResultCode RefuseQuery(const void* out) const;
    // *out receives the result of `query`, which runs under the lock. Errors: as RefuseQuery;
    // RC_NOT_OPEN unless the storage is Open.
    template <typename Query>
    [[nodiscard]] ResultCode QueryWhenOpen(std::int64_t* out, Query query);

    // The idle call, inside its barrier against exceptions.
    [[nodiscard]] ResultCode FlushWhenIdle();
    // One enumeration, counted in m_walks. Called under the lock.
    [[nodiscard]] ResultCode EnumWithVisitor(i64 fromRev, i64 toRev, RecordVisitor visitor,
                                             void* ctx);

    // The last Release in a forked child.
    void EndInChild();
    // Flushes what is committed, at the end of the storage. No failure and no exception gets out.
    void FlushForTheLastTime();

    // --- Constant after Open
    // How often the process had been forked when the object was made; see BelongsToThisProcess.
    const u32 m_forkGeneration = platform::ForkGeneration();
    OpenSettings m_settings;
    // The connection string given to Open; empty until its settings and the file were accepted.
    std::string m_connStr;

    // --- Self-synchronised
    // References that are held, the handle's included; 0: the storage is to end.
    std::atomic<u32> m_refCount{1};
    // Also destroys this object when it is released for the last time; see StorageLock.
    StorageLock m_lock{[](void* ctx) { delete static_cast<CK9eReplStorage*>(ctx); }, this};

    // --- Guarded by m_lock. Each object refers only to those before it.
    u32 m_walks = 0;  // enumerations that run, one inside another; 0: none
    StorageStatus m_status;
    BlockStore m_blocks;
    FileOwner m_fileOwner{*this};
    CSolidStorage m_file{&m_fileOwner};
    ClientMarks m_marks{m_file};
    IndexKeeper m_index{m_settings, m_blocks};
    Flusher m_flusher{m_settings, m_status, m_blocks, m_file};
    Transaction m_transaction{m_settings, m_status, m_blocks, m_file, m_index, m_flusher};
    Clearer m_clearer{m_settings, m_status, m_blocks,  m_file,
                      m_marks,    m_index,  m_flusher, m_transaction};
};

}  // namespace k9erepl

#endif  // K9EREPL_ENGINE_REPL_STORAGE_H
