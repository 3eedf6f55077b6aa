// Exhausted memory at every allocation of an operation: code 1, no exception, nothing leaked, and
// the storage goes on when memory returns.
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/fixed_log.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

constexpr std::string_view kSettings =
    "flush_mode=PerTrans;flush_trans_num=1;flush_timeout=2147483647;read_buffers_count=2;"
    "block_size=138;index_hint=1;";

using Step = std::function<void()>;
using Operation = std::function<u32()>;
using Check = std::function<void(u32)>;

const Step kNothing = [] {};

// Runs `operation` with its first `operator new` failing, then the second, and so on, until it
// makes fewer. `prepare` comes before each run; `check` looks at the result of each that was hit.
void ForEachNew(const Step& prepare, const Operation& operation, const Check& check) {
    for (u32 nth = 1;; ++nth) {
        SCOPED_TRACE("new " + std::to_string(nth));
        prepare();
        u32 rc = RC_OK;
        bool struck = false;
        {
            const FailNthNew fault(nth);
            rc = operation();
            struck = fault.Struck();
        }
        if (!struck) {
            EXPECT_GT(nth, 1U) << "the operation allocates";
            EXPECT_EQ(rc, RC_OK);
            return;
        }
        check(rc);
    }
}

// The same for platform memory: blocks and buffers.
void ForEachBlock(const Step& prepare, const Operation& operation, const Check& check) {
    for (u32 nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        prepare();
        const u32 before = CallCount(SystemCall::kAlloc);
        FailAlloc(nth);
        const u32 rc = operation();
        StopFailing(SystemCall::kAlloc);
        if (CallCount(SystemCall::kAlloc) - before < nth) {
            EXPECT_GT(nth, 1U) << "the operation allocates";
            EXPECT_EQ(rc, RC_OK);
            return;
        }
        check(rc);
    }
}

void ExpectNoMemory(u32 rc) {
    EXPECT_EQ(rc, RC_NO_MEMORY);
}

// For operations that can do without some of the memory: the index is only an aid.
void ExpectNoMemoryOrSuccess(u32 rc) {
    EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_OK) << rc;
}

// A storage file with two records, opened and closed once, so that nothing is done for the first
// time in this process.
class Exhausted : public ::testing::Test {
  protected:
    Exhausted() {
        storage.InsertCommitted({"one"});
        storage.InsertCommitted({"two"});
        storage.Close();
    }

    u32 Open() { return K9eReplStorageOpen(connStr.c_str(), &handle); }
    u32 Insert() { return K9eReplStorageInsert(handle, record.Get()); }
    void CloseHandle() {
        EXPECT_EQ(K9eReplStorageClose(handle), RC_OK);
        handle = nullptr;
    }

    const ScopedSystemCalls systemCalls;
    TestStorage storage{kSettings};
    const std::string connStr = storage.ConnStr();
    const std::string path = storage.Path();
    void* handle = nullptr;
    Record record{BlockFull("text")};
};

}  // namespace

TEST_F(Exhausted, OpenAnswersNoMemoryAndGivesNoHandle) {
    const FixedLog log;
    ForEachNew(
        kNothing, [&] { return Open(); },
        [&](u32 rc) {
            // Events and a thread of the writer that find no memory are the system's failure.
            EXPECT_TRUE(rc == RC_NO_MEMORY || (RunsAsynchronously() && rc == RC_SYSTEM_ERROR));
            EXPECT_EQ(handle, nullptr);
        });
    EXPECT_TRUE(log.HasError("Failed to init storage;conn-str file=", RC_NO_MEMORY));
    // The writing thread allocates beside them, and may take the failure meant for one of them.
    if (!RunsAsynchronously()) {
        EXPECT_TRUE(log.HasError("Cannot create index object;conn-str file=", RC_NO_MEMORY));
    }
    CloseHandle();
}

TEST_F(Exhausted, OpenWithoutReadBuffersAnswersNoMemory) {
    ForEachBlock(
        kNothing, [&] { return Open(); },
        [&](u32 rc) {
            ExpectNoMemory(rc);
            EXPECT_EQ(handle, nullptr);
        });
    CloseHandle();
}

TEST_F(Exhausted, OpenLogsWhateverMemoryIsMissing) {
    FixedLog log;
    ForEachNew(
        [&] { log.Clear(); }, [&] { return Open(); },
        [&](u32 rc) { EXPECT_TRUE(log.HasError("Failed to init storage;conn-str file=", rc)); });
    CloseHandle();
}

TEST_F(Exhausted, CreateAnswersNoMemoryAndLogsIt) {
    FixedLog log;
    const auto prepare = [&] {
        (void)std::remove(path.c_str());
        log.Clear();
    };
    const auto create = [&] {
        return K9eReplStorageCreate(connStr.c_str(), K9EREPL_CREATE_REPLACE);
    };
    ForEachNew(prepare, create, [&](u32 rc) {
        ExpectNoMemory(rc);
        EXPECT_TRUE(log.HasError("Out of memory while creating storage file;conn-str file=", rc));
    });
    ForEachBlock(prepare, create, [&](u32 rc) {
        ExpectNoMemory(rc);
        EXPECT_TRUE(log.HasError("Out of memory while writing first 1064 bytes", rc));
    });
}

TEST_F(Exhausted, DeleteAnswersNoMemoryAndLogsIt) {
    FixedLog log;
    const auto prepare = [&] {
        EXPECT_EQ(K9eReplStorageCreate(connStr.c_str(), K9EREPL_CREATE_KEEP_EXISTING), RC_OK);
        log.Clear();
    };
    ForEachNew(
        prepare, [&] { return K9eReplStorageDelete(connStr.c_str()); },
        [&](u32 rc) {
            ExpectNoMemory(rc);
            EXPECT_TRUE(
                log.HasError("Out of memory while deleting storage file;conn-str file=", rc));
        });
}

TEST_F(Exhausted, LoadAnswersNoMemoryAndMayBeTriedAgain) {
    const auto prepare = [&] {
        i64 nextRev = 0;
        if (handle != nullptr && K9eReplStorageGetNextRev(handle, &nextRev) == RC_OK &&
            nextRev > 1) {
            CloseHandle();  // the load went through without some aid
        }
        if (handle == nullptr) {
            EXPECT_EQ(Open(), RC_OK);
        }
    };
    const auto load = [&] { return K9eReplStorageLoad(handle); };
    ForEachNew(prepare, load, [](u32 rc) {
        // The system's thread wants memory too; that is a failure of the system.
        EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_SYSTEM_ERROR || rc == RC_OK) << rc;
    });
    ForEachBlock(prepare, load, ExpectNoMemoryOrSuccess);
    SeenRecords seen;
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 0, 9, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen.size(), 2U);
    CloseHandle();
}

TEST_F(Exhausted, InsertAnswersNoMemoryAndTakesTheRecordBack) {
    ASSERT_EQ(Open(), RC_OK);
    ASSERT_EQ(K9eReplStorageLoad(handle), RC_OK);
    std::size_t kept = 2;
    const auto insert = [&] {
        const u32 rc = Insert();
        kept += rc == RC_OK ? 1U : 0U;
        return rc;
    };
    ForEachNew(kNothing, insert, ExpectNoMemoryOrSuccess);
    ForEachBlock(kNothing, insert, ExpectNoMemoryOrSuccess);
    CloseHandle();
    ASSERT_EQ(Open(), RC_OK);
    ASSERT_EQ(K9eReplStorageLoad(handle), RC_OK);
    SeenRecords seen;
    EXPECT_EQ(K9eReplStorageEnumRecords(handle, 0, 999, &CollectRecord, &seen), RC_OK);
    EXPECT_EQ(seen.size(), kept);
    CloseHandle();
}

TEST_F(Exhausted, CommitOfManyBlocksAnswersNoMemoryAndMayBeTriedAgain) {
    ASSERT_EQ(Open(), RC_OK);
    ASSERT_EQ(K9eReplStorageLoad(handle), RC_OK);
    ASSERT_EQ(K9eReplStorageBeginTransaction(handle), RC_OK);
    for (int i = 0; i < 6; ++i) {
        ASSERT_EQ(Insert(), RC_OK);
    }
    u32 rc = RC_NO_MEMORY;
    for (u32 nth = 1; rc != RC_OK; ++nth) {
        const FailNthNew fault(nth);
        rc = K9eReplStorageCommit(handle);
        EXPECT_TRUE(rc == RC_NO_MEMORY || rc == RC_OK) << rc;
    }
    CloseHandle();
    EXPECT_EQ(FileItems(storage),
              Strings({"c0", "r1", "c1", "r2", "c2", "r3", "r4", "r5", "r6", "r7", "r8", "c8"}));
}

TEST_F(Exhausted, CloseAnswersOkWhateverFails) {
    for (u32 nth = 1;; ++nth) {
        ASSERT_EQ(Open(), RC_OK);
        ASSERT_EQ(K9eReplStorageLoad(handle), RC_OK);
        ASSERT_EQ(K9eReplStorageBeginTransaction(handle), RC_OK);
        ASSERT_EQ(Insert(), RC_OK);
        const FailNthNew fault(nth);
        EXPECT_EQ(K9eReplStorageClose(handle), RC_OK);
        if (!fault.Struck()) {
            return;
        }
    }
}

}  // namespace k9erepl::test
