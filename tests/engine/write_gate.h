// Holds the index thread in the middle of a save, for the tests of what a busy index thread means.
#ifndef K9EREPL_TESTS_ENGINE_WRITE_GATE_H
#define K9EREPL_TESTS_ENGINE_WRITE_GATE_H

#include <condition_variable>
#include <mutex>
#include <thread>

#include "engine/storage_fixture.h"
#include "platform/system_calls.h"

namespace k9erepl::test {

// Waits until the index thread has done what was asked of it.
inline void WaitUntilIdle(TestStorage& storage) {
    while (StorageAccess::Index(storage.Object())->IsBusy()) {
        std::this_thread::yield();
    }
}

// Holds writes of every thread but the one that made it while it is shut. To be made after a
// ScopedSystemCalls, which puts the system calls back.
class WriteGate {
  public:
    WriteGate() {
        s_gate = this;
        platform::TheSystemCalls().writeFile = &WriteGate::Write;
    }
    ~WriteGate() { s_gate = nullptr; }
    WriteGate(const WriteGate&) = delete;
    WriteGate& operator=(const WriteGate&) = delete;

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

  private:
    static i64 Write(platform::NativeFile file, const void* data, u32 size) {
        WriteGate& gate = *s_gate;
        if (std::this_thread::get_id() != gate.m_owner) {
            std::unique_lock guard(gate.m_mutex);
            gate.m_changed.wait(guard, [&] { return !gate.m_shut; });
        }
        return platform::NativeSystemCalls().writeFile(file, data, size);
    }

    static inline WriteGate* s_gate = nullptr;
    const std::thread::id m_owner = std::this_thread::get_id();
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_shut = false;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_WRITE_GATE_H
