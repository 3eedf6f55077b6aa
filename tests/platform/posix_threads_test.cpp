// Threads on POSIX systems: processors, signals, sleeps that signals interrupt.
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include "platform/system_error.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::WaitResult;

cpu_set_t ProcessorsOfThisThread() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    EXPECT_EQ(sched_getaffinity(0, sizeof processors, &processors), 0);
    return processors;
}

int LastProcessor() {
    const cpu_set_t allowed = ProcessorsOfThisThread();
    int last = 63;
    while (last > 0 && !CPU_ISSET(last, &allowed)) {
        --last;
    }
    return last;
}

TEST(PosixThreads, RunOnTheProcessorsOfTheirMask) {
    const int processor = LastProcessor();
    std::atomic<bool> onThatOneOnly{false};
    TestThread thread([&] {
        const cpu_set_t processors = ProcessorsOfThisThread();
        onThatOneOnly = CPU_COUNT(&processors) == 1 && CPU_ISSET(processor, &processors);
    });
    ASSERT_TRUE(thread->SetAffinity(u64{1} << processor));
    ASSERT_TRUE(thread->Resume());
    ASSERT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    EXPECT_TRUE(onThatOneOnly);
}

TEST(PosixThreads, RefuseAMaskWithoutAProcessor) {
    TestThread thread([] {});
    EXPECT_FALSE(thread->SetAffinity(0));
    EXPECT_EQ(platform::LastSystemError(), static_cast<u32>(EINVAL));
    EXPECT_TRUE(thread->Resume());
}

TEST(PosixThreads, LeaveTheHostsSignalsToTheHost) {
    sigset_t blocked;
    TestThread thread([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    ASSERT_TRUE(thread->Resume());
    ASSERT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGXFSZ}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
    }
}

TEST(PosixThreads, LeaveTheSignalMaskOfTheirCreatorAlone) {
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    TestThread thread([] {});
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
    EXPECT_TRUE(thread->Resume());
}

volatile std::sig_atomic_t g_interruptions = 0;

// Interrupts the process every few milliseconds while it lives.
class Interruptions {
  public:
    Interruptions() {
        g_interruptions = 0;
        struct sigaction action = {};
        action.sa_handler = [](int) { g_interruptions = g_interruptions + 1; };
        sigaction(SIGALRM, &action, &m_before);
        const itimerval often = {.it_interval = {0, 3000}, .it_value = {0, 3000}};
        setitimer(ITIMER_REAL, &often, nullptr);
    }
    ~Interruptions() {
        const itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &m_before, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

  private:
    struct sigaction m_before = {};
};

TEST(PosixThreads, SleepOnAfterAnInterruption) {
    const Interruptions interruptions;
    const i64 start = platform::PerformanceCounter();
    platform::SleepMs(50);
    EXPECT_GE(platform::PerformanceCounter() - start, 50'000'000);
    EXPECT_GT(g_interruptions, 0);
}

}  // namespace
}  // namespace k9erepl::test
