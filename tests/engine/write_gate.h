// Holds up or refuses the writes to one of a storage's files: those of the index thread in the
// middle of a save, or those of the writing thread of an asynchronous writer. For the tests of what
// a busy thread means, and one that ended.
#ifndef K9EREPL_TESTS_ENGINE_WRITE_GATE_H
#define K9EREPL_TESTS_ENGINE_WRITE_GATE_H

#include <atomic>
#include <string_view>
#include <thread>

#include "engine/storage_fixture.h"
#include "platform/system_error.h"
#include "support/call_layer.h"
#include "support/gate.h"

namespace k9erepl::test {

// Waits until the index thread has done what was asked of it.
inline void WaitUntilIdle(TestStorage& storage) {
    while (StorageAccess::Index(storage.Object())->IsBusy()) {
        std::this_thread::yield();
    }
}

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

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_WRITE_GATE_H
