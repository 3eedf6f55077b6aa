// Exhausted memory at every allocation of the functions that make and delete storages: code 1, no
// exception, nothing leaked, and what is logged. (The reliability family alloc-failures has the
// operations on open storages.)
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

enum class Memory {
    kObjects,  // of operator new
    kBlocks    // and buffers, from the platform
};

// Runs `operation` with its first allocation of that kind failing, then the second, and so on,
// until it makes fewer. `prepare` comes before each run; `check` looks at the result of each that
// was hit.
void ForEachAllocation(Memory memory, const Step& prepare, const Operation& operation,
                       const Check& check) {
    bool struck = true;
    for (u32 nth = 1; struck; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        prepare();
        u32 rc = RC_OK;
        if (memory == Memory::kObjects) {
            const FailNthNew fault(nth);
            rc = operation();
            struck = fault.Struck();
        } else {
            const u32 before = CallCount(SystemCall::kAlloc);
            FailAlloc(nth);
            rc = operation();
            StopFailing(SystemCall::kAlloc);
            struck = CallCount(SystemCall::kAlloc) - before >= nth;
        }
        if (struck) {
            check(rc);
        } else {
            EXPECT_GT(nth, 1U) << "the operation allocates";
            EXPECT_EQ(rc, RC_OK);
        }
    }
}

// A storage file with two records, opened and closed once, so that nothing is done for the first
// time in this process.
class Exhausted : public ::testing::Test {
  protected:
    Exhausted() {
        m_storage.InsertCommitted({"one"});
        m_storage.InsertCommitted({"two"});
        m_storage.Close();
    }

    u32 Open() { return K9eReplStorageOpen(m_connStr.c_str(), &m_handle); }
    void Close() { EXPECT_EQ(K9eReplStorageClose(m_handle), RC_OK); }
    // The operation failed with RC_NO_MEMORY and logged that, with a text that begins so.
    Check ExpectLogged(std::string_view begin) {
        return [this, begin](u32 rc) {
            EXPECT_EQ(rc, RC_NO_MEMORY);
            EXPECT_TRUE(m_log.HasError(begin, rc));
        };
    }

    const ScopedSystemCalls m_systemCalls;
    TestStorage m_storage{kSettings};
    const std::string m_connStr = m_storage.ConnStr();
    void* m_handle = nullptr;
    FixedLog m_log;
};

TEST_F(Exhausted, OpenGivesNoHandleAndLogsWhateverMemoryIsMissing) {
    bool indexFailed = false;
    ForEachAllocation(
        Memory::kObjects, [&] { m_log.Clear(); }, [&] { return Open(); },
        [&](u32 rc) {
            // Events and a thread of the writer that find no memory are the system's failure.
            EXPECT_TRUE(rc == RC_NO_MEMORY || (RunsAsynchronously() && rc == RC_SYSTEM_ERROR));
            EXPECT_EQ(m_handle, nullptr);
            EXPECT_TRUE(m_log.HasError("Failed to init storage;conn-str file=", rc));
            indexFailed |=
                m_log.HasError("Cannot create index object;conn-str file=", RC_NO_MEMORY);
        });
    // The writing thread allocates beside them, and may take the failure meant for one of them.
    EXPECT_TRUE(indexFailed || RunsAsynchronously());
    Close();
}

TEST_F(Exhausted, OpenWithoutReadBuffersAnswersNoMemory) {
    m_handle = nullptr;
    ForEachAllocation(
        Memory::kBlocks, [] {}, [&] { return Open(); },
        [&](u32 rc) {
            EXPECT_EQ(rc, RC_NO_MEMORY);
            EXPECT_EQ(m_handle, nullptr);
        });
    Close();
}

TEST_F(Exhausted, CreateAnswersNoMemoryAndLogsIt) {
    const auto prepare = [&] {
        (void)std::remove(m_storage.Path().c_str());
        m_log.Clear();
    };
    const auto create = [&] {
        return K9eReplStorageCreate(m_connStr.c_str(), K9EREPL_CREATE_REPLACE);
    };
    ForEachAllocation(Memory::kObjects, prepare, create,
                      ExpectLogged("Out of memory while creating storage file;conn-str file="));
    ForEachAllocation(Memory::kBlocks, prepare, create,
                      ExpectLogged("Out of memory while writing first 1064 bytes"));
}

TEST_F(Exhausted, DeleteAnswersNoMemoryAndLogsIt) {
    const auto prepare = [&] {
        EXPECT_EQ(K9eReplStorageCreate(m_connStr.c_str(), K9EREPL_CREATE_KEEP_EXISTING), RC_OK);
        m_log.Clear();
    };
    ForEachAllocation(
        Memory::kObjects, prepare, [&] { return K9eReplStorageDelete(m_connStr.c_str()); },
        ExpectLogged("Out of memory while deleting storage file;conn-str file="));
}

}  // namespace
}  // namespace k9erepl::test
