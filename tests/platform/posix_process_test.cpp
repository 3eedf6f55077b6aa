// A process and its threads on POSIX systems: atoms that nobody else notices, modules, messages;
// processors, signals, sleeps that signals interrupt.
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "platform/process.h"
#include "platform/system_error.h"
#include "thread_fixture.h"

namespace k9erepl::test {
namespace {

using platform::AddProcessAtom;
using platform::DeleteProcessAtom;
using platform::FindProcessAtom;
using platform::ProcessAtom;
using platform::WaitResult;

// The exit status of the helper program (atom_probe.cpp).
int Probe(const std::string& command, const std::string& name) {
    const std::string line = std::string(ATOM_PROBE) + " " + command + " " + name;
    const int status = std::system(line.c_str());  // NOLINT(cert-env33-c,concurrency-mt-unsafe)
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

auto OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

TEST(PosixProcessAtoms, AreNotSeenByOtherProcessesAndTakeNoDescriptor) {
    const auto before = OpenDescriptors();
    const ProcessAtom atom = AddProcessAtom("k9atom");
    EXPECT_NE(FindProcessAtom("k9atom"), 0U);
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Probe("find", "k9atom"), 0);
    DeleteProcessAtom(atom, "k9atom");
}

TEST(PosixProcessAtoms, AreGoneAfterExec) {
    EXPECT_EQ(Probe("find-itself", "k9atom"), 1);
    EXPECT_EQ(Probe("find-after-exec", "k9atom"), 0);
}

class ScopedDescriptorLimit {
  public:
    explicit ScopedDescriptorLimit(rlim_t count) {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
        const rlimit limit = {.rlim_cur = count, .rlim_max = m_before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~ScopedDescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_before); }
    ScopedDescriptorLimit(const ScopedDescriptorLimit&) = delete;
    ScopedDescriptorLimit& operator=(const ScopedDescriptorLimit&) = delete;

  private:
    rlimit m_before = {};
};

TEST(PosixProcessAtoms, AreNoneWhereTheSystemHasNoMore) {
    const ScopedDescriptorLimit limit(0);
    EXPECT_EQ(AddProcessAtom("k9atom"), 0U);
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
}

TEST(PosixMessageBox, IsOneLineOnStandardError) {
    ::testing::internal::CaptureStderr();
    platform::ShowMessageBox("Something happened", "Caption");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Caption: Something happened\n");
}

TEST(PosixModuleHandles, LeadToTheModulesPath) {
    Dl_info info = {};
    ASSERT_NE(dladdr(platform::OwnModuleHandle(), &info), 0);
    EXPECT_EQ(std::filesystem::canonical(info.dli_fname),
              std::filesystem::canonical("/proc/self/exe"));
}

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

TEST(PosixThreads, LeaveTheHostsSignalsToTheHostAndTheMaskOfTheirCreatorAlone) {
    sigset_t before;
    sigset_t blocked;
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    TestThread thread([&] { pthread_sigmask(SIG_BLOCK, nullptr, &blocked); });
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    ASSERT_TRUE(thread->Resume());
    ASSERT_EQ(thread->Join(kLongMs), WaitResult::kSignalled);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGCHLD, SIGXFSZ}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    }
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
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
