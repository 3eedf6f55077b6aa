// Callbacks that throw: no exception leaves an exported function or ends a thread of the library,
// the lock is free afterwards, and a storage that was being flushed or cleared is broken.
#include <gtest/gtest.h>

#include <atomic>
#include <new>
#include <stdexcept>
#include <thread>

#include "engine/flush_fixture.h"
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
    void WaitUntilLogged() const {
        while (m_log.CountContaining("An exception ended the call") == 0) {
            std::this_thread::yield();
        }
    }

    LogCapture m_log;
    Notified m_flushed;
};

}  // namespace

TEST_F(ThrowingCallbacks, OnFlushBreaksTheStorageAndIsAnsweredWithACode) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    ExpectLogged("K9eReplStorageInsert", "client", RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_TRUE(LockIsFree(storage));
    EXPECT_EQ(storage.Insert("two"), RC_WRONG_STATE);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"})) << "the flush was complete";
}

TEST_F(ThrowingCallbacks, MemoryThatIsExhaustedIsAnsweredSo) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw std::bad_alloc(); });
    ASSERT_EQ(storage.Begin(), RC_OK);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    EXPECT_EQ(storage.Commit(), RC_NO_MEMORY);
    ExpectLogged("K9eReplStorageCommit", std::bad_alloc().what(), RC_NO_MEMORY);
    EXPECT_EQ(storage.State(), StorageState::kBroken);
}

TEST_F(ThrowingCallbacks, WhateverIsThrownEndsThere) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw 7; });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
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
    EXPECT_TRUE(LockIsFree(storage));
    EXPECT_EQ(storage.Texts(), Numbered(20));
}

TEST_F(ThrowingCallbacks, OfADataSourceIsAnsweredWithACode) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(2);
    EXPECT_EQ(storage.DataSource().EnumFrom(0, 0, 0, 1, 0, &ThrowError, nullptr), RC_SYSTEM_ERROR);
    ExpectLogged("EnumFrom", "client", RC_SYSTEM_ERROR);
    EXPECT_EQ(storage.Texts(), Numbered(2));
}

TEST_F(ThrowingCallbacks, InsideACallbackEndAtTheInnerCall) {
    TestStorage storage(kFlushNever);
    storage.InsertMany(2);
    u32 inner = RC_OK;
    u32 calls = 0;
    InOnFlush(storage, [&] {
        inner = K9eReplStorageEnumRecords(storage.Handle(), 1, 9, &ThrowError, nullptr);
        ++calls;
    });
    EXPECT_EQ(StorageAccess::Flush(storage.Object()), RC_OK);
    EXPECT_EQ(inner, RC_SYSTEM_ERROR);
    EXPECT_EQ(calls, 1U);
    EXPECT_EQ(storage.State(), StorageState::kOpen);
}

TEST_F(ThrowingCallbacks, OfAStorageInMemoryLoseNoRecord) {
    TestStorage storage(kInMemory, Start::kNothing);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    m_flushed.Does([](i64) {});
    EXPECT_EQ(storage.Insert("two"), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"one", "two"}));
}

TEST_F(ThrowingCallbacks, LetATruncationBringTheStorageBack) {
    TestStorage storage(kFlushAlways);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    EXPECT_EQ(storage.Insert("one"), RC_SYSTEM_ERROR);
    m_flushed.Does([](i64) {});
    EXPECT_EQ(storage.Truncate(), RC_OK);
    storage.InsertCommitted({"new"});
    EXPECT_EQ(m_flushed.Calls(), Revs({1, 1}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"new"}));
}

// --- On threads of the library -----------------------------------------------------------------

TEST_F(ThrowingCallbacks, OnTheIndexThreadBreakTheStorageOnly) {
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage(kByTime);
    InOnFlush(storage, [] { throw std::runtime_error("client"); });
    storage.InsertCommitted({"one"});
    AdvanceTickCount(20);
    WaitUntilLogged();
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(storage.Insert("two"), RC_WRONG_STATE);
    ExpectLogged("FlushOnIdle", "client", RC_SYSTEM_ERROR);
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"one"}));
}

TEST_F(ThrowingCallbacks, OnWriteToFileOnTheIndexThreadBreaksTheStorageOnly) {
    SKIP_WHEN_ASYNC("OnWriteToFile is called by the flush");
    const ScopedSystemCalls systemCalls;
    SetTickCount(1000);
    TestStorage storage(kByTime);
    Notified written([](i64) { throw 7; });
    written.SetAsOnWriteToFile(storage);
    storage.InsertCommitted({"one"});
    AdvanceTickCount(20);
    WaitUntilLogged();
    EXPECT_EQ(storage.State(), StorageState::kBroken);
    EXPECT_EQ(storage.Insert("two"), RC_WRONG_STATE);
    ExpectLogged("FlushOnIdle", "not a std::exception", RC_SYSTEM_ERROR);
    written.Does([](i64) {});
    storage.Close();
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

}  // namespace k9erepl::test
