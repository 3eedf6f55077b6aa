// The scan of the storage file for hosts, through the interface that they are given: it may come at
// any time, beside commits, flushes and clears, and takes nothing away from the storage.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "engine/clear_fixture.h"
#include "engine/write_gate.h"

namespace k9erepl::test {
namespace {

// The items that a scan handed out: "r<rev>" and "c<commitRev>".
class HostScan {
  public:
    explicit HostScan(TestStorage& storage) {
        void* out = nullptr;
        EXPECT_EQ(K9eReplStorageGetLLStorage(storage.Handle(), &out), RC_OK);
        m_file = static_cast<IK9eReplLLStorage*>(out);
    }
    // Called for each item, with its text; its result goes back to the scan.
    void Does(std::function<u32(const std::string&)> action) { m_action = std::move(action); }

    u32 Run() {
        m_items.clear();
        return m_file->ScanFile(&OnRecord, &OnCommit, this);
    }
    const Strings& Items() const { return m_items; }
    Strings Scanned() {
        EXPECT_EQ(Run(), RC_OK);
        return m_items;
    }

  private:
    static std::uint32_t OnRecord(std::uint64_t, const K9eReplRec* rec, void* ctx) {
        return static_cast<HostScan*>(ctx)->Take("r" + std::to_string(rec->rev));
    }
    static std::uint32_t OnCommit(void* ctx, std::int64_t, std::int64_t commitRev) {
        return static_cast<HostScan*>(ctx)->Take("c" + std::to_string(commitRev));
    }
    u32 Take(const std::string& item) {
        m_items.push_back(item);
        return m_action ? m_action(item) : u32{RC_OK};
    }

    IK9eReplLLStorage* m_file = nullptr;
    std::function<u32(const std::string&)> m_action;
    Strings m_items;
};

const Strings kTwoItems = {"c0", "r1", "c1", "r2", "c2"};

}  // namespace

TEST(HostScan, LeavesTheStorageAsItWas) {
    TestStorage storage(kFlushAlways);
    HostScan scan(storage);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    for (u32 n = 3; n <= 20; ++n) {
        ASSERT_EQ(scan.Run(), RC_OK);
        ASSERT_EQ(storage.Insert("r" + std::to_string(n)), RC_OK);
    }
    EXPECT_EQ(storage.Records().size(), 20U);
    storage.Reopen(kFlushNever);
    ASSERT_EQ(storage.Insert("r21"), RC_OK);
    HostScan later(storage);
    EXPECT_EQ(later.Scanned().back(), "c20") << "what is not in the file is not delivered";
    storage.Reopen();
    EXPECT_EQ(storage.Records().size(), 21U);
}

TEST(HostScan, WaitsForTheLock) {
    TestStorage storage(kFlushAlways);
    ASSERT_EQ(storage.Insert("one"), RC_OK);
    ASSERT_EQ(storage.Begin(), RC_OK);
    HostScan scan(storage);
    std::atomic<bool> free{false};
    auto& lock = StorageAccess::Lock(storage.Object());
    lock.lock();
    std::thread scanner([&] {
        EXPECT_EQ(scan.Run(), RC_OK);
        EXPECT_TRUE(free);
    });
    ASSERT_EQ(storage.Insert("two"), RC_OK);
    ASSERT_EQ(storage.Commit(), RC_OK);
    free = true;
    lock.unlock();
    scanner.join();
    EXPECT_EQ(scan.Items(), kTwoItems);
}

TEST(HostScan, MayCallBackIntoTheStorage) {
    TestStorage storage(SmallCache(1));
    storage.InsertMany(2);
    HostScan scan(storage);
    scan.Does([&](const std::string& item) -> u32 {
        EXPECT_EQ(storage.Texts(2, 2), Strings({"r2"}));
        EXPECT_EQ(storage.Insert(item), RC_OK);
        return storage.Clear(2, kLogical);
    });
    EXPECT_EQ(scan.Run(), RC_OK);
    EXPECT_EQ(scan.Items(), kTwoItems);
    EXPECT_EQ(storage.Texts(), Strings({"r2", "c0", "r1", "c1", "r2", "c2"}));
    storage.Reopen();
    EXPECT_EQ(storage.Texts(), Strings({"r2", "c0", "r1", "c1", "r2", "c2"}));
}

TEST(HostScan, EndsWhenACallbackMovesTheItems) {
    const std::vector<std::function<u32(TestStorage&)>> removals = {
        [](TestStorage& storage) { return storage.Clear(2, kSqueeze); },
        [](TestStorage& storage) { return storage.ClearAll(kLogical); },
        [](TestStorage& storage) { return storage.Truncate(); }};
    for (const auto& remove : removals) {
        TestStorage storage(kFlushAlways);
        storage.InsertMany(3);
        HostScan scan(storage);
        scan.Does([&](const std::string& item) { return item == "r1" ? remove(storage) : 0U; });
        EXPECT_EQ(scan.Run(), RC_ENUM_STOP);
        EXPECT_EQ(scan.Items(), Strings({"c0", "r1"}));
        const Strings left = storage.Texts();
        ASSERT_EQ(storage.Insert("next"), RC_OK);
        storage.Reopen();
        EXPECT_EQ(storage.Texts().size(), left.size() + 1);
    }
}

TEST(HostScan, BeforeTheLoadThatLoadsEndsToo) {
    TestStorage storage(kFlushAlways);
    storage.InsertMany(2);
    storage.Close();
    ASSERT_EQ(storage.TryOpen(), RC_OK);
    HostScan scan(storage);
    scan.Does([&](const std::string& item) { return item == "r1" ? storage.TryLoad() : 0U; });
    EXPECT_EQ(scan.Run(), RC_ENUM_STOP);
    scan.Does({});
    ASSERT_EQ(storage.Insert("three"), RC_OK);
    EXPECT_EQ(scan.Scanned(), Strings({"c0", "r1", "c1", "r2", "c2", "r3", "c3"}));
}

TEST(HostScan, MayCloseTheLastHandle) {
    TestStorage storage(kFlushAlways);
    storage.InsertMany(2);
    HostScan scan(storage);
    scan.Does([&](const std::string& item) -> u32 {
        if (item == "r1") {
            storage.Close();
        }
        return RC_OK;
    });
    EXPECT_EQ(scan.Run(), RC_OK);
    EXPECT_EQ(scan.Items(), kTwoItems);
    ASSERT_EQ(storage.TryOpenAndLoad(), RC_OK);
    EXPECT_EQ(storage.Texts(), Strings({"r1", "r2"}));
}

class HostScanAsync : public AsyncStorageTest {};

TEST_F(HostScanAsync, LetsTheWritingThreadFinishFirst) {
    TestStorage storage(AsyncSettings(4));
    ShutGate();
    storage.InsertMany(2);
    HostScan scan(storage);
    WhileTheGateOpens([&] { EXPECT_EQ(scan.Scanned(), kTwoItems); });
}

TEST_F(HostScanAsync, AnswersTheCodeOfAWriteThatFailed) {
    TestStorage storage(AsyncSettings(4));
    storage.InsertMany(1);
    EXPECT_EQ(storage.WaitForWriter(), RC_OK);
    ShutGate();
    FailWrite(1);
    EXPECT_EQ(storage.Insert("two"), RC_OK);
    HostScan scan(storage);
    WhileTheGateOpens([&] { EXPECT_EQ(scan.Run(), RC_SYSTEM_ERROR); });
    EXPECT_EQ(scan.Items(), Strings());
}

}  // namespace k9erepl::test
