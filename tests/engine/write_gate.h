// Holds up or refuses the writes to one of a storage's files: those of the index thread in the
// middle of a save, or those of the writing thread of an asynchronous writer. For the tests of what
// a busy thread means, and one that ended.
#ifndef K9EREPL_TESTS_ENGINE_WRITE_GATE_H
#define K9EREPL_TESTS_ENGINE_WRITE_GATE_H

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>

#include "engine/storage_fixture.h"
#include "platform/system_calls.h"
#include "platform/system_error.h"

namespace k9erepl::test {

// Waits until the index thread has done what was asked of it.
inline void WaitUntilIdle(TestStorage& storage) {
    while (StorageAccess::Index(storage.Object())->IsBusy()) {
        std::this_thread::yield();
    }
}

// Writes to the file by the thread that made the gate always pass. To be made after a
// ScopedSystemCalls, which puts the system calls back and whose faults strike behind the gate, and
// before the storage.
class WriteGate {
  public:
    enum class File { kIndex, kStorage };

    explicit WriteGate(File file)
        : m_file(file), m_behind(platform::TheSystemCalls()), m_owner(std::this_thread::get_id()) {
        s_gate = this;
        platform::TheSystemCalls().openFile = &WriteGate::OpenFile;
        platform::TheSystemCalls().writeFile = &WriteGate::WriteFile;
    }
    ~WriteGate() { s_gate = nullptr; }
    WriteGate(const WriteGate&) = delete;
    WriteGate& operator=(const WriteGate&) = delete;

    // Writes wait until the gate is open.
    void Shut() {
        const std::lock_guard guard(m_mutex);
        m_shut = true;
    }
    void Open() {
        {
            const std::lock_guard guard(m_mutex);
            m_shut = false;
        }
        m_changed.notify_all();
    }
    // Writes fail for lack of room.
    void Refuse(bool refused) { m_refused = refused; }

  private:
    static platform::NativeFile OpenFile(const char* path,
                                         const platform::FileOpenRequest& request) {
        WriteGate& gate = *s_gate;
        const platform::NativeFile file = gate.m_behind.openFile(path, request);
        if (std::string_view(path).ends_with("-idx")) {
            gate.m_indexFile = file;
        }
        return file;
    }
    static i64 WriteFile(platform::NativeFile file, const void* data, u32 size) {
        WriteGate& gate = *s_gate;
        if ((file == gate.m_indexFile) == (gate.m_file == File::kIndex) && !gate.LetsPass()) {
            platform::SetLastSystemError(
                platform::SystemErrorOf(platform::SystemErrorKind::kNoSpace));
            return -1;
        }
        return gate.m_behind.writeFile(file, data, size);
    }
    bool LetsPass() {
        if (std::this_thread::get_id() != m_owner) {
            std::unique_lock guard(m_mutex);
            m_changed.wait(guard, [this] { return !m_shut; });
        }
        return !m_refused;
    }

    static inline WriteGate* s_gate = nullptr;
    const File m_file;
    const platform::SystemCalls m_behind;
    const std::thread::id m_owner;
    std::atomic<platform::NativeFile> m_indexFile{platform::kInvalidNativeFile};
    std::atomic<bool> m_refused{false};
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_shut = false;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_WRITE_GATE_H
