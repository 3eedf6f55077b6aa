// What the tests of the index module share: the bytes that an index file should have, a block index
// that grows as the engine's does, a storage of which only the idle call does something.
#ifndef K9EREPL_TESTS_INDEX_INDEX_FIXTURE_H
#define K9EREPL_TESTS_INDEX_INDEX_FIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "index/block_index.h"
#include "index/index_image.h"
#include "index/index_object.h"
#include "memory/repl_block.h"
#include "platform/int_types.h"
#include "platform/system_calls.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

inline constexpr u32 kBlockSize = 65536;
// So long that nothing of it happens in a test.
inline constexpr u32 kNoIdle = 3'600'000;

// Revision and file offset.
using Entries = std::vector<std::pair<i64, i64>>;

// The bytes of the index file with these entries, made field by field.
std::vector<u8> IndexFileBytes(const Entries& entries, u32 blockSize = kBlockSize);
// The checksum of that file.
u32 IndexChecksum(const Entries& entries);
// The entries of valid index file bytes; fails the test for others.
Entries EntriesOf(const std::vector<u8>& bytes);

// Does with the image's bytes what the file writer does with them, to a file that is `*file`.
void WriteImage(const IndexImage& image, std::vector<u8>* file);

// Waits for a condition that another thread brings about; false after a minute.
bool WaitFor(const std::function<bool()>& condition);

// The code of a system error as messages show it.
std::string SysErr(SystemErrorKind kind);

// While it lives, the leak sanitizer takes no offence at what this thread allocates: what a thread
// uses that was given up is never freed.
class LeaksAllowed {
  public:
    LeaksAllowed();
    ~LeaksAllowed();
    LeaksAllowed(const LeaksAllowed&) = delete;
    LeaksAllowed& operator=(const LeaksAllowed&) = delete;
};

// A block index and the memory blocks that its entries point at.
class Blocks {
  public:
    // A block that is in the file and no longer in memory.
    Blocks& Add(i64 rev, i64 offset);
    // A block in memory with records; `offset` -1 when none of them is in the file.
    Blocks& AddInMemory(i64 rev, i64 offset);
    // What a record leaves that did not fit.
    Blocks& AddEmpty(i64 rev);
    // `count` blocks in the file, behind what is there.
    Blocks& AddMany(u32 count);

    void SetOffset(i64 rev, i64 offset) { m_index.at(rev).fileOffset = offset; }
    void Remove(i64 rev) { m_index.erase(rev); }
    void RemoveFrom(i64 rev) { m_index.erase(m_index.lower_bound(rev), m_index.end()); }
    void Clear() { m_index.clear(); }

    const BlockIndex& Index() const { return m_index; }
    Entries All() const;

  private:
    Blocks& AddBlock(i64 rev, i64 offset, u64 used);

    std::deque<K9eReplBlock> m_memory;
    BlockIndex m_index;
};

class FakeStorage : public IK9eReplDS {
  public:
    u32 AddRef() override { return 2; }
    u32 Release() override { return 1; }
    u32 Reserved3(std::uintptr_t /*unused*/) override { return RC_OK; }
    u32 Reserved4(std::uintptr_t /*unused*/) override { return RC_OK; }
    u32 Reserved5(std::uintptr_t /*unused*/) override { return RC_NOT_SUPPORTED; }
    bool IsSame(const void* other) override { return other == this; }
    u32 EnumFrom(u32 /*a*/, u32 /*b*/, u32 /*c*/, i64 /*fromRev*/, u32 /*d*/, K9eReplEnumCb /*cb*/,
                 void* /*ctx*/) override {
        return RC_NOT_SUPPORTED;
    }
    u32 GetFirstRev(u32 /*unused*/, i64* /*out*/) override { return RC_NOT_OPEN; }
    u32 GetLastRev(u32 /*unused*/, i64* /*out*/) override { return RC_NOT_OPEN; }
    u32 GetClearRev(i64* /*out*/) override { return RC_NOT_OPEN; }
    u32 GetFlag(u32 /*unused*/, u8* /*out*/) override { return RC_NOT_OPEN; }
    u32 Reserved12(std::uintptr_t /*a*/, std::uintptr_t /*b*/) override { return RC_NOT_SUPPORTED; }
    u32 Reserved13(std::uintptr_t /*a*/, std::uintptr_t /*b*/, std::uintptr_t /*c*/) override {
        return RC_NOT_SUPPORTED;
    }
    // Counts, then does what the test wants.
    u32 FlushOnIdle() override;

    u32 IdleCalls() const { return m_idleCalls; }
    // Set before the thread starts.
    std::function<void()> onIdle;

  private:
    std::atomic<u32> m_idleCalls{0};
};

// A gate in the way of every write, open until it is shut. Installed before threads run.
class GateForWrites {
  public:
    static void Install();
    static void Shut();
    static void Open() { s_open = true; }
    static bool IsOpen() { return s_open; }
    // Whether a write has come to the gate since it was shut.
    static bool IsReached() { return s_reached; }

  private:
    static i64 Write(platform::NativeFile file, const void* data, u32 size);

    static inline std::atomic<bool> s_open{true};
    static inline std::atomic<bool> s_reached{false};
};

// An index object over a temporary folder, with system calls that can fail.
class IndexObjectTest : public ::testing::Test {
  protected:
    // The connection string names the file data.edb of the folder, followed by `settings`.
    void Make(u32 waitMs = kNoIdle, const std::string& settings = "");
    // Make and a Start that must succeed.
    void MakeStarted(u32 waitMs = kNoIdle, const std::string& settings = "");
    // Make, for a thread that can neither be resumed nor ended, and stays for ever.
    void MakeUnending();
    u32 SaveSync() { return m_index->RequestSave(m_blocks.Index(), IndexSaveMode::kSync); }
    u32 SaveAsync() { return m_index->RequestSave(m_blocks.Index(), IndexSaveMode::kAsync); }
    // Waits until the thread has saved, or has ended.
    void WaitForThread();

    std::string Path() const { return m_folder.File("data.edb-idx"); }
    std::vector<u8> FileBytes() const { return ReadBytes(Path()); }

    // Ends last: the system calls stay replaced while threads may use them.
    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    FakeStorage m_storage;
    Blocks m_blocks;
    std::unique_ptr<IndexObject> m_index;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_INDEX_INDEX_FIXTURE_H
