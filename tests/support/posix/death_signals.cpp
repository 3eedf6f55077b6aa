// Deadly signals. A sanitizer tells of its own findings first and calls back; only what it leaves
// alone, abort above all, is watched for as signals then.
#include <unistd.h>

#include <array>
#include <csignal>

#include "support/death_notice.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define K9EREPL_SANITIZER_TELLS
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define K9EREPL_SANITIZER_TELLS
#endif
#endif

#ifdef K9EREPL_SANITIZER_TELLS
#include <sanitizer/common_interface_defs.h>
#endif

namespace k9erepl::test {
namespace {

struct DeadlySignal {
    int number;
    const char* name;
    struct sigaction before = {};  // what the signal did without us
};

#ifdef K9EREPL_SANITIZER_TELLS
std::array g_signals = {DeadlySignal{SIGABRT, "SIGABRT"}};
#else
std::array g_signals = {DeadlySignal{SIGABRT, "SIGABRT"}, DeadlySignal{SIGSEGV, "SIGSEGV"},
                        DeadlySignal{SIGBUS, "SIGBUS"}, DeadlySignal{SIGILL, "SIGILL"},
                        DeadlySignal{SIGFPE, "SIGFPE"}};
#endif

void OnDeadlySignal(int number, siginfo_t* info, void*) {
    for (const DeadlySignal& deadly : g_signals) {
        if (deadly.number != number) {
            continue;
        }
        sigaction(number, &deadly.before, nullptr);
        if (TellDeath()) {
            Tell(deadly.name);
            if (info->si_code > 0) {
                Tell(" at address ");
                TellHex(reinterpret_cast<std::uintptr_t>(info->si_addr));
            }
            TellEnd();
        }
    }
    // A faulting instruction is repeated and faults again; a signal that somebody sent is not.
    if (info->si_code <= 0) {
        (void)raise(number);
    }
}

#ifdef K9EREPL_SANITIZER_TELLS
void OnSanitizersDeath() {
    if (TellDeath()) {
        Tell("ended by a sanitizer");
        TellEnd();
    }
}
#endif

}  // namespace
}  // namespace k9erepl::test

#ifdef K9EREPL_SANITIZER_TELLS
// UndefinedBehaviorSanitizer has callbacks of its own beside another sanitizer: let it abort.
extern "C" __attribute__((visibility("default"))) const char* __ubsan_default_options() {
    return "abort_on_error=1:print_stacktrace=1";
}
#endif

namespace k9erepl::test {

void WriteToStandardError(const char* text, std::size_t size) {
    (void)!write(STDERR_FILENO, text, size);
}

void WatchForDeath() {
#ifdef K9EREPL_SANITIZER_TELLS
    __sanitizer_set_death_callback(OnSanitizersDeath);
#else
    // The main thread's handler runs here: its own stack may be what is exhausted.
    static char handlerStack[64 * 1024];
    stack_t stack = {};
    stack.ss_sp = handlerStack;
    stack.ss_size = sizeof handlerStack;
    sigaltstack(&stack, nullptr);
#endif
    struct sigaction action = {};
    action.sa_sigaction = OnDeadlySignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (DeadlySignal& deadly : g_signals) {
        sigaction(deadly.number, &action, &deadly.before);
    }
}

}  // namespace k9erepl::test
