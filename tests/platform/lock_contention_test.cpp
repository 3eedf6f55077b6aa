// The recursive lock among many threads: nobody is let in twice, nobody sleeps for ever, and the
// object with the lock in it may end as soon as the lock is free.
#include <atomic>
#include <deque>
#include <functional>
#include <mutex>
#include <utility>

#include "platform/lock.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::RecursiveLock;

constexpr int kContenders = 8;

// Runs `body` with the numbers 0 to kContenders - 1, each on a thread of its own.
class Contenders {
  public:
    explicit Contenders(std::function<void(int)> body) : m_body(std::move(body)) {
        for (int i = 0; i < kContenders; ++i) {
            m_threads.emplace_back([this, i] { m_body(i); });
        }
        for (TestThread& thread : m_threads) {
            EXPECT_TRUE(thread->Resume());
        }
    }
    void Join() {
        for (TestThread& thread : m_threads) {
            EXPECT_EQ(thread->Join(kLongMs), platform::WaitResult::kSignalled);
        }
    }

  private:
    const std::function<void(int)> m_body;
    std::deque<TestThread> m_threads;
};

TEST(ContendedLock, LetsOneThreadInHoweverOftenItLocks) {
    constexpr int kRounds = 3000;
    RecursiveLock lock;
    int count = 0;  // not atomic: the lock guards it
    Contenders contenders([&](int own) {
        for (int round = 0; round < kRounds; ++round) {
            const std::lock_guard outer(lock);
            const int before = count;
            if ((round + own) % 3 == 0) {
                EXPECT_TRUE(lock.try_lock());
                EXPECT_FALSE(lock.IsHeldOnce());
                lock.unlock();
            }
            EXPECT_TRUE(lock.IsHeldOnce());
            count = before + 1;
        }
    });
    contenders.Join();
    EXPECT_EQ(count, kContenders * kRounds);
}

// What try_lock takes, lock() must wait for, and the other way round.
TEST(ContendedLock, IsOneLockForBothWaysToTakeIt) {
    constexpr int kRounds = 2000;
    RecursiveLock lock;
    int count = 0;
    Contenders contenders([&](int own) {
        for (int round = 0; round < kRounds; ++round) {
            if (own % 2 == 0) {
                lock.lock();
            } else {
                while (!lock.try_lock()) {
                    platform::YieldThread();
                }
            }
            ++count;
            lock.unlock();
        }
    });
    contenders.Join();
    EXPECT_EQ(count, kContenders * kRounds);
}

TEST(ContendedLock, WakesAllWhoWait) {
    RecursiveLock lock;
    std::atomic<int> waiting{0};
    int passed = 0;
    lock.lock();
    lock.lock();
    Contenders contenders([&](int) {
        ++waiting;
        const std::lock_guard guard(lock);
        ++passed;
    });
    EXPECT_TRUE(Eventually([&] { return waiting == kContenders; }));
    lock.unlock();
    EXPECT_EQ(passed, 0);
    lock.unlock();
    contenders.Join();
    EXPECT_EQ(passed, kContenders);
}

TEST(ContendedLock, GoesRound) {
    constexpr int kTurns = kContenders * 25;
    RecursiveLock lock;
    int turn = 0;
    Contenders contenders([&](int own) {
        for (bool goesOn = true; goesOn; platform::YieldThread()) {
            const std::lock_guard guard(lock);
            if (turn < kTurns && turn % kContenders == own) {
                ++turn;
            }
            goesOn = turn < kTurns;
        }
    });
    contenders.Join();
    EXPECT_EQ(turn, kTurns);
}

TEST(ContendedLock, MayEndWhenTheLastHolderIsStillInUnlock) {
    struct Shared {
        RecursiveLock lock;
        int holders = kContenders;  // threads that have not had the lock yet
    };
    for (int round = 0; round < 300; ++round) {
        auto* shared = new Shared;
        Contenders contenders([shared](int) {
            shared->lock.lock();
            const bool last = --shared->holders == 0;
            shared->lock.unlock();
            if (last) {
                delete shared;
            }
        });
        contenders.Join();
    }
}

}  // namespace
}  // namespace k9erepl::test
