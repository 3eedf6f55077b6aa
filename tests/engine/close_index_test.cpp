// The index file at the close of a storage: nothing is written to it any more when the storage file
// is given free, since whoever opens that next makes the index file anew.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "engine/write_gate.h"
#include "support/call_layer.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Lets the held save go on when the closing thread looks at the clock, as it does to wait for it,
// or else when the storage file is closed. To be made after the gate and before the storage.
class ClosingWatch : CallLayer<ClosingWatch> {
  public:
    explicit ClosingWatch(WriteGate& gate) : m_gate(gate) {
        Take<&CallTable::openFile, &ClosingWatch::OpenFile>();
        Take<&CallTable::closeFile, &ClosingWatch::CloseFile>();
        Take<&CallTable::tickCount, &ClosingWatch::TickCount>();
    }

    bool ClosedWhileHeld() const { return m_closedWhileHeld; }

  private:
    friend CallLayer;

    platform::NativeFile OpenFile(const char* path, const platform::FileOpenRequest& request) {
        const platform::NativeFile file = Below().openFile(path, request);
        if (std::string_view(path).ends_with("storage.eRepl")) {
            m_storageFile = file;
        }
        return file;
    }
    bool CloseFile(platform::NativeFile file) {
        if (file == m_storageFile && m_gate.IsHeld()) {
            m_closedWhileHeld = true;
            m_gate.Open();
        }
        return Below().closeFile(file);
    }
    u32 TickCount() {
        if (m_log.CountContaining("Deinit e-repl storage") != 0) {
            m_gate.Open();
        }
        return Below().tickCount();
    }

    const LogCapture m_log;
    WriteGate& m_gate;
    std::atomic<platform::NativeFile> m_storageFile{platform::kInvalidNativeFile};
    std::atomic<bool> m_closedWhileHeld{false};
};

}  // namespace

TEST(CloseIndex, ASaveInProgressEndsBeforeTheStorageFileIsGivenFree) {
    WriteGate gate(WriteGate::File::kIndex);
    const ClosingWatch watch(gate);
    TestStorage storage(With(kFlushAlways, "block_size=138;index_hint=1;"));
    gate.Shut();
    storage.InsertCommitted({BlockFull("one")});
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    storage.InsertCommitted({BlockFull("two")});
    gate.WaitUntilHeld();
    storage.Close();
    EXPECT_FALSE(watch.ClosedWhileHeld());
}

}  // namespace k9erepl::test
