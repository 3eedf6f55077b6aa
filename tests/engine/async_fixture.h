// What the tests of storages with the asynchronous writer share: a storage whose writing thread is
// held up when a test says so, and what the client of one sees of it. These tests are the same in
// both runs of the program.
#ifndef K9EREPL_TESTS_ENGINE_ASYNC_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_ASYNC_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {

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

#endif  // K9EREPL_TESTS_ENGINE_ASYNC_FIXTURE_H
