// Callbacks that throw or close the last handle: no exception leaves an exported function or ends a
// thread of the library, a close is carried out by the outermost call that leaves the storage, and
// the lock is free afterwards.
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>

#include "engine/clear_fixture.h"
#include "support/call_layer.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

// Flushed by the index thread alone, once the clock of the test has advanced by 20 milliseconds.
constexpr std::string_view kByTime = "flush_mode=PerTrans;flush_trans_num=-1;flush_timeout=20;";

// Another thread can take the lock.
bool LockIsFree(TestStorage& storage) {
    bool taken = false;
    std::thread([&] {
        taken = StorageAccess::Lock(storage.Object()).try_lock();
        if (taken) {
            StorageAccess::Lock(storage.Object()).unlock();
        }
    }).join();
    return taken;
}

[[noreturn]] u32 K9EREPL_CALL ThrowError(const K9eReplRec* /*rec*/, void* /*context*/) {
    throw std::runtime_error("client");
}

class ThrowingCallbacks : public ::testing::Test {
  protected:
    void InOnFlush(TestStorage& storage, std::function<void()> action) {
        m_flushed.Does([action = std::move(action)](i64) { action(); });
        m_flushed.SetAsOnFlush(storage);
    }
    void ExpectLogged(const char* call, const char* exception, u32 code) const {
        const std::string text = std::string("An exception ended the call;call ") + call +
                                 ",exception '" + exception + "'";
        EXPECT_EQ(m_log.CodeOf(text), code) << m_log;
    }

    const ScopedSystemCalls m_systemCalls;
    LogCapture m_log;
    Notified m_flushed;
};

}  // namespace

TEST_F(ThrowingCallbacks, OnFlushBreaksTheStorageUntilItIsReopenedOrTruncated) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    ExpectLogged("K9eReplStorageInsert", "client", RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_TRUE(LockIsFree(storage));
    EXPECT_EQ(storage.Insert("two"), RC_WRONG_STATE);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"})) << "the flush was complete";
    m_flushed.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("two"), RC_SYSTEM_ERROR);
    m_flushed.Does({});
    EXPECT_EQ(storage.Truncate(), RC_OK);
    storage.InsertCommitted({"new"});
    EXPECT_EQ(m_flushed.Calls(), Revs({1, 2, 1}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"new"}));
}

TEST_F(ThrowingCallbacks, WhateverTheyThrowIsAnsweredWithACode) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw std::bad_alloc(); });
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_EQ(storage.Commit(), RC_NO_MEMORY);
    ExpectLogged("K9eReplStorageCommit", std::bad_alloc().what(), RC_NO_MEMORY);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    storage.Reopen();
    InOnFlush(storage, [] { throw 7; });
    EXPECT_EQ(storage.Insert("two"), RC_SYSTEM_ERROR);
    ExpectLogged("K9eReplStorageInsert", "not a std::exception", RC_SYSTEM_ERROR);
}

TEST_F(ThrowingCallbacks, OfAnEnumerationLeavesTheStorageOpen) {
    TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last1;"));
    storage.InsertMany(20);
    for (const i64 fromRev : {1, 20}) {  // from disk, from memory
        EXPECT_EQ(
            K9eReplStorageEnumRecords(storage.Handle(), fromRev, kEndOfRevs, &ThrowError, nullptr),
            RC_SYSTEM_ERROR);
    }
    ExpectLogged("K9eReplStorageEnumRecords", "client", RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.DataSource().EnumFrom(0, 0, 0, 1, 0, &ThrowError, nullptr), RC_SYSTEM_ERROR);
    ExpectLogged("EnumFrom", "client", RC_SYSTEM_ERROR);
    EXPECT_TRUE(LockIsFree(storage));
    EXPECT_EQ(storage.Texts(), Numbered(20));
}

TEST_F(ThrowingCallbacks, InsideACallbackEndAtTheInnerCall) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(2);
    u32 inner = RC_OK;
    InOnFlush(storage, [&] {
        inner = K9eReplStorageEnumRecords(storage.Handle(), 1, 9, &ThrowError, nullptr);
    });
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(inner, RC_SYSTEM_ERROR);
    EXPECT_EQ(m_flushed.Calls().size(), 1U);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST_F(ThrowingCallbacks, OfAStorageInMemoryLoseNoRecord) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    m_flushed.Does({});
    EXPECT_EQ(storage.Insert("two"), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST_F(ThrowingCallbacks, OfTheLastFlushAreReportedAndEndThere) {
    TestStorage storage(kFlushNever);
    storage.InsertCommitted({"one"});
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    storage.Close();
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR,
                          "A callback threw during the last flush;conn-str " + storage.ConnStr()))
        << m_log;
}

TEST_F(ThrowingCallbacks, OnTheIndexThreadBreakTheStorageOnly) {
    for (const bool inOnFlush : {true, false}) {
        if (!inOnFlush && RunsAsynchronously()) {
            continue;  // OnWriteToFile is not called by the flush
        }
        SetTickCount(1000);
        m_log.Clear();
        Notified thrower([](i64) { throw std::runtime_error("client"); });
        TestStorage storage(kByTime);
        inOnFlush ? thrower.SetAsOnFlush(storage) : thrower.SetAsOnWriteToFile(storage);
        storage.InsertCommitted({"one"});
        AdvanceTickCount(20);
        while (m_log.CountContaining("An exception ended the call") == 0) {
            std::this_thread::yield();
        }
        EXPECT_EQ(storage.State(), StorageState::kBroken);
        EXPECT_EQ(storage.Insert("two"), RC_WRONG_STATE);
        ExpectLogged("FlushOnIdle", "client", RC_SYSTEM_ERROR);
        thrower.Does({});
        storage.Close();
    }
}

TEST_F(ThrowingCallbacks, OnTheWritingThreadStopTheWriter) {
    TestStorage storage(With(kFlushAlways, "async_mode=yes;"));
    Notified written([](i64) { throw 7; });
    written.SetAsOnWriteToFile(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_EQ(storage.WaitForWriter(), RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Insert("two"), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf("OnWriteToFile threw on the writing thread: not a std::exception"),
              RC_SYSTEM_ERROR)
        << m_log;
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

// --- Closing -------------------------------------------------------------------------------------

namespace {

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
    void CloseInOnFlush(TestStorage& storage) {
        m_notified.Does([&](i64) { Close(storage); });
        m_notified.SetAsOnFlush(storage);
    }
    bool IsGone() const { return m_log.CountContaining("Deinit e-repl storage") != 0; }
    // After the outermost call: the storage is gone, and holds what it should.
    void ExpectClosedWith(TestStorage& storage, const Strings& texts) {
        EXPECT_TRUE(IsGone());
        EXPECT_FALSE(storage.IsOpen());
        ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
        EXPECT_EQ(storage.Texts(), texts);
        m_log.Clear();
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

}  // namespace

TEST_F(CloseInCallback, OfAFlushIsCarriedOutWhenTheCallLeaves) {
    TestStorage storage(kFlushAlways);
    CloseInOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    ExpectClosedWith(storage, {"one"});
    if (!RunsAsynchronously()) {
        m_notified.SetAsOnWriteToFile(storage);
        EXPECT_EQ(storage.Insert("two"), RC_OK);
        ExpectClosedWith(storage, {"one", "two"});
    }
    const Strings before = storage.Texts();
    m_notified.Does([&](i64) {
        Close(storage);
        throw std::runtime_error("client");
    });
    m_notified.SetAsOnFlush(storage);
    EXPECT_EQ(storage.Insert("three"), RC_SYSTEM_ERROR);
    EXPECT_TRUE(IsGone());
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(storage.Records().size(), before.size() + 1);
}

TEST_F(CloseInCallback, InTheFlushOfAClearLetsItEnd) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(3);
    CloseInOnFlush(storage);
    EXPECT_EQ(storage.Clear(2, kSqueeze), RC_OK);
    ExpectClosedWith(storage, {"r2", "r3"});
}

TEST_F(CloseInCallback, OfAStorageInMemoryIsCarriedOutWhenTheCallLeaves) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    CloseInOnFlush(storage);
    EXPECT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_TRUE(IsGone());
}

TEST_F(CloseInCallback, InAnEnumerationLetsItDeliverEveryRecord) {
    for (const bool nested : {false, true}) {
        TestStorage storage(With(kFlushAlways, "block_size=138;cache_type=Last1;"));
        storage.InsertMany(20);
        ASSERT_EQ(storage.WaitForWriter(), RC_OK);
        m_log.Clear();
        u32 seen = 0;
        const RecordFunction close = [&](const K9eReplRec&) -> u32 {
            if (seen++ == 0) {
                Close(storage);
            }
            return RC_OK;
        };
        const RecordFunction walkAndClose = [&](const K9eReplRec&) -> u32 {
            return storage.IsOpen() ? EnumerateWith(storage, 1, kEndOfRevs, close) : u32{RC_OK};
        };
        EXPECT_EQ(EnumerateWith(storage, 1, kEndOfRevs, nested ? walkAndClose : close), RC_OK);
        EXPECT_EQ(seen, 20U);
        ExpectClosedWith(storage, Numbered(20));
    }
}

TEST_F(CloseInCallback, WritesWhatTheCallbackCommitted) {
    TestStorage storage(kFlushAlways);
    m_notified.DoesOnce([&] {
        EXPECT_EQ(storage.Insert("two"), RC_OK);
        Close(storage);
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

TEST_F(CloseInCallback, OnTheIndexThreadIsCarriedOutByIt) {
    TestStorage storage(kByTime);
    CloseInOnFlush(storage);
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
