// The recursive lock.
#include "platform/lock.h"

#include <mutex>

#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::RecursiveLock;

// Whether another thread could take the lock now.
bool OthersCanTake(RecursiveLock& lock) {
    bool taken = false;
    TestThread other([&] {
        taken = lock.try_lock();
        if (taken) {
            lock.unlock();
        }
    });
    EXPECT_TRUE(other->Resume());
    EXPECT_EQ(other->Join(kLongMs), platform::WaitResult::kSignalled);
    return taken;
}

TEST(RecursiveLockTest, IsFreeAtFirst) {
    RecursiveLock lock;
    EXPECT_TRUE(OthersCanTake(lock));
}

TEST(RecursiveLockTest, KeepsOthersOutUntilUnlockedAsOftenAsLocked) {
    RecursiveLock lock;
    lock.lock();
    lock.lock();
    EXPECT_TRUE(lock.try_lock());
    for (int held = 3; held > 0; --held) {
        EXPECT_FALSE(OthersCanTake(lock)) << held;
        lock.unlock();
    }
    EXPECT_TRUE(OthersCanTake(lock));
}

TEST(RecursiveLockTest, LockWaitsForTheOtherThread) {
    RecursiveLock lock;
    int counter = 0;
    const auto count = [&] {
        for (int n = 0; n < 2000; ++n) {
            const std::lock_guard guard(lock);
            ++counter;
        }
    };
    TestThread other(count);
    ASSERT_TRUE(other->Resume());
    count();
    ASSERT_EQ(other->Join(kLongMs), platform::WaitResult::kSignalled);
    EXPECT_EQ(counter, 4000);
}

TEST(RecursiveLockTest, FitsTheStandardGuards) {
    RecursiveLock lock;
    {
        const std::unique_lock tried(lock, std::try_to_lock);
        EXPECT_TRUE(tried.owns_lock());
        EXPECT_FALSE(OthersCanTake(lock));
    }
    EXPECT_TRUE(OthersCanTake(lock));
}

}  // namespace
}  // namespace k9erepl::test
