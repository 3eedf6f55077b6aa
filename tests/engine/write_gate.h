// Holds up threads: those of the library when they write to one of a storage's files, the index
// thread in the middle of a save or the writing thread, and clients of the storage's lock. For the
// tests of what a busy thread means, and one that ended.
#ifndef K9EREPL_TESTS_ENGINE_WRITE_GATE_H
#define K9EREPL_TESTS_ENGINE_WRITE_GATE_H

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "engine/clear_fixture.h"
#include "platform/system_error.h"
#include "support/call_layer.h"
#include "support/fault_injection.h"
#include "support/gate.h"

namespace k9erepl::test {

// Waits until the index thread has done what was asked of it.
inline void WaitUntilIdle(TestStorage& storage) {
    while (StorageAccess::Index(storage.Object())->IsBusy()) {
        std::this_thread::yield();
    }
}

// Holds the storage's lock on a thread of its own.
class LockHolder {
  public:
    explicit LockHolder(TestStorage& storage)
        : m_thread([this, &storage] {
              const std::lock_guard held(StorageAccess::Lock(storage.Object()));
              m_holds = true;
              while (!m_done) {
                  std::this_thread::yield();
              }
          }) {
        while (!m_holds) {
            std::this_thread::yield();
        }
    }
    ~LockHolder() {
        m_done = true;
        m_thread.join();
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

  private:
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

// Writes to the file by the thread that made the gate always pass. To be made after a
// ScopedSystemCalls, whose faults strike behind the gate, and before the storage.
class WriteGate : CallLayer<WriteGate> {
  public:
    enum class File { kIndex, kStorage };

    explicit WriteGate(File file) : m_file(file) {
        Take<&CallTable::openFile, &WriteGate::OpenFile>();
        Take<&CallTable::writeFile, &WriteGate::WriteFile>();
    }

    // Writes wait until the gate is open.
    void Shut() { m_gate.Shut(); }
    void Open() { m_gate.Open(); }
    void WaitUntilHeld() { m_gate.WaitUntilHeld(); }
    bool IsHeld() { return m_gate.IsHeld(); }
    // Writes fail for lack of room.
    void Refuse(bool refused) { m_refused = refused; }

  private:
    friend CallLayer<WriteGate>;

    platform::NativeFile OpenFile(const char* path, const platform::FileOpenRequest& request) {
        const platform::NativeFile file = Below().openFile(path, request);
        if (std::string_view(path).ends_with("-idx")) {
            m_indexFile = file;
        }
        return file;
    }
    i64 WriteFile(platform::NativeFile file, const void* data, u32 size) {
        if ((file == m_indexFile) == (m_file == File::kIndex)) {
            if (std::this_thread::get_id() != m_owner) {
                m_gate.Pass();
            }
            if (m_refused) {
                platform::SetLastSystemError(
                    platform::SystemErrorOf(platform::SystemErrorKind::kNoSpace));
                return -1;
            }
        }
        return Below().writeFile(file, data, size);
    }

    const File m_file;
    const std::thread::id m_owner = std::this_thread::get_id();
    Gate m_gate{true};
    std::atomic<platform::NativeFile> m_indexFile{platform::kInvalidNativeFile};
    std::atomic<bool> m_refused{false};
};

// --- Storages with the asynchronous writer; their tests are the same in both runs of the program.

// Blocks of 138 bytes, every commit flushed, `cacheBlocks` blocks in memory.
inline std::string AsyncSettings(u32 cacheBlocks, std::string_view more = "") {
    return With(kFlushAlways, "async_mode=yes;block_size=138;cache_type=Last" +
                                  std::to_string(cacheBlocks) + ";" + std::string(more));
}

inline Keeping AsyncKeeping(u32 cacheBlocks) {
    return {"Asynchronous", AsyncSettings(cacheBlocks)};
}

class AsyncStorageTest : public ::testing::Test {
  protected:
    // The writing thread's next write waits until OpenGate.
    void ShutGate() { m_gate.Shut(); }
    void OpenGate() { m_gate.Open(); }
    // Does `work` while another thread opens the gate.
    template <typename Work>
    void WhileTheGateOpens(Work work) {
        std::thread opener([this] { OpenGate(); });
        work();
        opener.join();
    }

    const ScopedSystemCalls m_systemCalls;
    WriteGate m_gate{WriteGate::File::kStorage};
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_WRITE_GATE_H
