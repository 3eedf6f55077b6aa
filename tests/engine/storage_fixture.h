// The vocabulary of the engine's tests: a storage in a folder of its own, driven through its
// handle by short words. Used by every test of tests/engine and tests/api.
//
//     TestStorage storage("block_size=138;flush_trans_num=1");   // created, opened, loaded
//     storage.InsertCommitted({"one", "two"});
//     storage.Reopen();
//     EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
//
// A test that injects faults begins a ScopedSystemCalls before the TestStorage. Storages with a
// file have the writer that support/writer_mode.h says, unless their settings name one.
#ifndef K9EREPL_TESTS_ENGINE_STORAGE_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_STORAGE_FIXTURE_H

#include <k9erepl/storage.h>

#include <initializer_list>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "engine/repl_storage.h"
#include "engine/revision.h"
#include "support/temp_folder.h"
#include "support/writer_mode.h"

namespace k9erepl {

// The inside of the storage object and of its parts, where nothing else shows what a test must see
// or break.
struct StorageAccess {
    static StorageState State(CK9eReplStorage& s) { return s.m_status.State(); }
    static void SetState(CK9eReplStorage& s, StorageState state) { s.m_status.Set(state); }
    static BlockStore& Blocks(CK9eReplStorage& s) { return s.m_blocks; }
    static i64 FlushedRev(CK9eReplStorage& s) { return s.m_blocks.FlushedRev(); }
    static i64& OldestRev(CK9eReplStorage& s) { return s.m_blocks.m_oldestRev; }
    static bool BeginMoved(CK9eReplStorage& s) { return s.m_blocks.BeginMoved(); }
    static u32& TransDepth(CK9eReplStorage& s) { return s.m_transaction.m_depth; }
    static bool& RolledBack(CK9eReplStorage& s) { return s.m_transaction.m_rolledBack; }
    static i64& ClearMark(CK9eReplStorage& s) { return s.m_marks.m_clearOldRev; }
    static FlushPolicy& Policy(CK9eReplStorage& s) { return s.m_flusher.m_policy; }
    static const OpenSettings& Settings(CK9eReplStorage& s) { return s.m_settings; }
    static StorageLock& Lock(CK9eReplStorage& s) { return s.m_lock; }
    static IndexObject* Index(CK9eReplStorage& s) { return s.m_index.m_object.get(); }
    static u32 Flush(CK9eReplStorage& s) {
        return s.m_flusher.Flush(s.m_transaction.LastCommittedRev());
    }
    static u32 ShrinkCache(CK9eReplStorage& s) {
        return s.m_settings.MayEvict() ? s.m_flusher.ShrinkCache() : u32{RC_OK};
    }
    static u32 Enumerate(CK9eReplStorage& s, i64 fromRev, i64 toRev, RecordVisitor visitor,
                         void* ctx) {
        return s.EnumWithVisitor(fromRev, toRev, visitor, ctx);
    }
    static MemoryBlocks& InMemory(BlockStore& blocks) { return blocks.m_blocks; }
    static BlockIndex& Entries(BlockStore& blocks) { return blocks.m_index; }
};

namespace test {

using Strings = std::vector<std::string>;

// A client's record in memory of its own: the head and, behind it, the data.
class Record {
  public:
    explicit Record(std::string_view data = "", u32 userWord = 0, i64 rev = 0);
    K9eReplRec* Get() { return reinterpret_cast<K9eReplRec*>(m_bytes.data()); }
    K9eReplRec* operator->() { return Get(); }

  private:
    std::vector<u8> m_bytes;
};

// A record as an enumeration handed it out.
struct SeenRecord {
    i64 rev = 0;
    u32 userWord = 0;
    std::string data;

    bool operator==(const SeenRecord&) const = default;
};
std::ostream& operator<<(std::ostream& out, const SeenRecord& record);
using SeenRecords = std::vector<SeenRecord>;

// Collects into the SeenRecords that `records` points at; a K9eReplEnumCb.
u32 K9EREPL_CALL CollectRecord(const K9eReplRec* rec, void* records);

enum class Start { kLoaded, kOpened, kCreated, kNothing };

// The storage `storage.eRepl` in a temporary folder. Words that return nothing expect RC_OK; those
// that return a code leave the judgement to the test.
class TestStorage {
  public:
    // `settings` follow "file=...;" in the connection string, unless they name a file themselves,
    // as those of a storage in memory do ("file=:memory:;..."). `start` says how far to go.
    explicit TestStorage(std::string_view settings = "", Start start = Start::kLoaded);
    ~TestStorage();
    TestStorage(const TestStorage&) = delete;
    TestStorage& operator=(const TestStorage&) = delete;

    const TempFolder& Folder() const { return m_folder; }
    std::string Path() const { return m_folder.File("storage.eRepl"); }
    std::string ConnStr() const;
    void Use(std::string_view settings) { m_settings = settings; }

    // --- Life of the handle
    u32 TryCreate(u32 flags = 0);
    u32 TryOpen();
    u32 TryLoad();
    u32 TryOpenAndLoad();
    void Close();
    // Closes, and opens and loads again with the present settings or the given ones.
    void Reopen();
    void Reopen(std::string_view settings);
    bool IsOpen() const { return m_handle != nullptr; }
    void* Handle() const { return m_handle; }
    CK9eReplStorage& Object() const;
    IK9eReplDS& DataSource() const;

    // Returns when everything queued is written and notified, or with what keeps the writer from
    // it. To be called before a test looks at the file or at what OnWriteToFile reported; the words
    // below and those of the other fixtures that look at a file have called it.
    u32 WaitForWriter() const;
    // The same, and the cache shrinks to its limit, which blocks that were being written may have
    // kept it from.
    void Settle();

    // --- Transactions
    u32 Begin();
    u32 Commit();
    u32 Rollback();
    u32 Insert(std::string_view data, u32 userWord = 0);
    u32 InsertP(i64 rev, std::string_view data, u32 userWord = 0);
    // Begin, Insert each, Commit; all expected to succeed.
    void InsertCommitted(std::initializer_list<std::string_view> data);
    // `count` transactions of one record each, "<prefix><n>" with n from 1.
    void InsertMany(u32 count, std::string_view prefix = "r");

    // --- Removing
    u32 Clear(i64 rev, u32 mode);
    u32 ClearAll(u32 mode);
    u32 Truncate();

    // --- Reading
    u32 Enumerate(SeenRecords* records, i64 fromRev = 0, i64 toRev = kEndOfRevs);
    SeenRecords Records(i64 fromRev = 0, i64 toRev = kEndOfRevs);
    Strings Texts(i64 fromRev = 0, i64 toRev = kEndOfRevs);
    i64 NextRev();
    i64 FirstRev();
    i64 OldestRev() const { return StorageAccess::OldestRev(Object()); }
    i64 RevisionMark();
    u32 Lifenum();
    StorageState State() const { return StorageAccess::State(Object()); }

  private:
    const TempFolder m_folder;
    std::string m_settings;
    void* m_handle = nullptr;
};

// The storage file as it is when the writer has nothing more to write.
std::vector<u8> FileBytes(const TestStorage& storage);

// "<prefix>1" ... "<prefix><count>": what InsertMany inserted.
Strings Numbered(u32 count, std::string_view prefix = "r");

}  // namespace test
}  // namespace k9erepl

#endif  // K9EREPL_TESTS_ENGINE_STORAGE_FIXTURE_H
