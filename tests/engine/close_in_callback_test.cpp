// Closing the last handle inside a callback: the outermost call that leaves the storage carries it
// out, whatever thread that is on; every call in between works as before.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "engine/flush_fixture.h"
#include "support/call_layer.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kByTime = "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=20;";
constexpr std::string_view kOnDisk = "block_size=138;cache_type=Last1;";

// Counts the blocks of memory that are in use.
class CountedMemory : CallLayer<CountedMemory> {
  public:
    CountedMemory() {
        Take<&CallTable::allocMemory, &CountedMemory::Alloc>();
        Take<&CallTable::freeMemory, &CountedMemory::Free>();
    }
    u32 Blocks() const { return m_blocks; }

  private:
    friend CallLayer;
    void* Alloc(std::size_t size) {
        ++m_blocks;
        return Below().allocMemory(size);
    }
    void Free(void* memory) {
        Below().freeMemory(memory);
        --m_blocks;
    }

    std::atomic<u32> m_blocks{0};
};

class CloseInCallback : public ::testing::Test {
  protected:
    // To be called in a callback: closes the last handle, and the storage stays.
    void Close(TestStorage& storage) {
        storage.Close();
        EXPECT_FALSE(IsGone()) << "a call is under way";
    }
    bool IsGone() const { return m_log.CountContaining("Deinit e-repl storage") != 0; }
    // After the outermost call: the storage is gone, and holds what it should.
    void ExpectClosedWith(TestStorage& storage, const Strings& texts) {
        EXPECT_TRUE(IsGone());
        EXPECT_FALSE(storage.IsOpen());
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        EXPECT_EQ(storage.Texts(), texts);
    }
    // The index thread logs the times of its saves; then its last system call frees their memory.
    void WaitUntilGone() const {
        while (m_log.CountContaining("Idx-Save: ") == 0 || m_memory.Blocks() != 0) {
            std::this_thread::yield();
        }
    }

    CountedMemory m_memory;
    LogCapture m_log;
    Notified m_notified;
};

struct ClosingVisitor {
    TestStorage* storage;
    u32 seen = 0;

    static u32 K9EREPL_CALL Visit(const K9eReplRec* /*rec*/, void* self) {
        auto& visitor = *static_cast<ClosingVisitor*>(self);
        if (visitor.seen++ == 0) {
            visitor.storage->Close();
        }
        return RC_OK;
    }
    static u32 K9EREPL_CALL VisitNested(const K9eReplRec* /*rec*/, void* self) {
        auto& visitor = *static_cast<ClosingVisitor*>(self);
        if (!visitor.storage->IsOpen()) {
            return RC_OK;
        }
        return K9eReplStorageEnumRecords(visitor.storage->Handle(), 1, kEndOfRevs, &Visit, self);
    }
};

}  // namespace

TEST_F(CloseInCallback, InOnFlushIsCarriedOutWhenTheCallLeaves) {
    TestStorage storage(kFlushAlways);
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    ExpectClosedWith(storage, {"one"});
}

TEST_F(CloseInCallback, InOnWriteToFileIsCarriedOutWhenTheCallLeaves) {
    SKIP_WHEN_ASYNC("OnWriteToFile may call back in");
    TestStorage storage(kFlushAlways);
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnWriteToFile(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    ExpectClosedWith(storage, {"one"});
}

TEST_F(CloseInCallback, InTheFlushOfAClearLetsItEnd) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(3);
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Clear(2, K9EREPL_CLEAR_SQUEEZE), RC_OK);
    ExpectClosedWith(storage, {"r2", "r3"});
}

TEST_F(CloseInCallback, OfAStorageInMemoryIsCarriedOutWhenTheCallLeaves) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_TRUE(IsGone());
}

TEST_F(CloseInCallback, InAnEnumerationLetsItDeliverEveryRecord) {
    for (const K9eReplEnumCb visit : {&ClosingVisitor::Visit, &ClosingVisitor::VisitNested}) {
        TestStorage storage(With(kFlushAlways, kOnDisk));
        storage.InsertMany(20);
        ASSERT_EQ(storage.WaitForWriter(), RC_OK);
        ClosingVisitor visitor{&storage};
        m_log.Clear();
        EXPECT_EQ(K9eReplStorageEnumRecords(storage.Handle(), 1, kEndOfRevs, visit, &visitor),
                  RC_OK);
        EXPECT_EQ(visitor.seen, 20U);
        ExpectClosedWith(storage, Numbered(20));
    }
}

TEST_F(CloseInCallback, BeforeAnExceptionIsCarriedOut) {
    TestStorage storage(kFlushAlways);
    m_notified.Does([&](i64) {
        Close(storage);
        throw std::runtime_error("client");
    });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    ExpectClosedWith(storage, {"one"});
}

TEST_F(CloseInCallback, WritesWhatTheCallbackCommitted) {
    TestStorage storage(kFlushAlways);
    m_notified.Does([&, first = true](i64) mutable {
        if (std::exchange(first, false)) {
            EXPECT_EQ(storage.Insert("two"), RC_OK);
            Close(storage);
        }
    });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    ExpectClosedWith(storage, {"one", "two"});
}

// The last flush belongs to a storage without handles: those that it takes and gives back there
// end nothing a second time.
TEST_F(CloseInCallback, OfAHandleTakenInTheLastFlushEndsNothing) {
    TestStorage storage(kFlushNever);
    void* const handle = storage.Handle();
    m_notified.Does([&](i64) {
        void* duplicate = nullptr;
        EXPECT_EQ(K9eReplStorageDuplicateHandle(handle, &duplicate), RC_OK);
        EXPECT_EQ(K9eReplStorageClose(duplicate), RC_OK);
    });
    m_notified.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    storage.Close();
    EXPECT_EQ(m_log.CountContaining("Deinit e-repl storage"), 1U);
    ExpectClosedWith(storage, {"one"});
}

// --- On threads of the library -----------------------------------------------------------------

TEST_F(CloseInCallback, OnTheIndexThreadIsCarriedOutByIt) {
    TestStorage storage(kByTime);
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnFlush(storage);
    storage.InsertCommitted({"one"});
    WaitUntilGone();
    ExpectClosedWith(storage, {"one"});
}

TEST_F(CloseInCallback, OnTheWritingThreadIsCarriedOutByTheIdleCall) {
    TestStorage storage(With(kByTime, "async_mode=yes;"));
    m_notified.Does([&](i64) { Close(storage); });
    m_notified.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one"});
    WaitUntilGone();
    ExpectClosedWith(storage, {"one"});
}

}  // namespace k9erepl::test
