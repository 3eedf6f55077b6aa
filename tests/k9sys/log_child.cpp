// A program that logs, run by log_child_test.cpp with an environment of its own:
//
//   k9sys_log_child MODE [NAME=VALUE]...
//
// MODE is a key of the table below; each NAME=VALUE goes into the environment before anything is
// logged.
#include <k9sys/k9sys.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "support/log.h"
#include "support/run_threads.h"

namespace {

constexpr std::uint32_t kCode = 27;
constexpr std::uint32_t kCodeOfTheFamily = 0x8011;

void LogEveryLevel() {
    for (const char* module : {"a", "b"}) {
        K9LogErrorEx(module, "an error");
        K9LogWarningEx(module, "a warning");
        K9LogInfoEx(module, "an info");
    }
}

void LogCodes() {
    K9LogErrorWithCodeEx(kCode, "k9eRepl-storage", "Failed to begin trans;state %d", 3);
    K9LogErrorWithCodeEx(kCodeOfTheFamily, "***TP***", "no transaction");
    K9LogErrorEx("a", "two\nlines\tand \x7F");
}

void LogOnEightThreads() {
    k9erepl::test::RunThreads(8, [](int number) {
        for (int round = 0; round < 100; ++round) {
            K9LogErrorEx("a", "thread %d round %d;%s", number, round, "some more text");
        }
    });
}

// The storage library's own way to log: the first round registers the sites, the second uses them.
void LogAtCallSites() {
    for (int round = 0; round < 2; ++round) {
        LOG_INFO(k9erepl::kLogStorage, "round %d", round);
    }
    for (int state = 0; state < 2; ++state) {
        LOG_ERROR_CODE(kCode, k9erepl::kLogStorage, "state %d", state);
    }
}

// Made before the first message and destroyed after main: logs when whatever the system library
// had made later would be gone.
struct LogsAtTheEnd {
    ~LogsAtTheEnd() { K9LogErrorEx("a", "while the process ends"); }
};

void LogWhileTheProcessEnds() {
    static const LogsAtTheEnd atTheEnd;
    K9LogErrorEx("a", "while it runs");
}

constexpr struct {
    std::string_view name;
    void (*run)();
} kModes[] = {{"levels", LogEveryLevel},
              {"codes", LogCodes},
              {"sites", LogAtCallSites},
              {"threads", LogOnEightThreads},
              {"end", LogWhileTheProcessEnds}};

// What a developer or a test runner has set does not count here: empty is like not set.
void ForgetInheritedSettings() {
    for (const char* setting : {"K9SYS_LOG=", "K9SYS_LOG_FILE="}) {
        const std::string name(setting, std::string_view(setting).size() - 1);
        if (std::getenv(name.c_str()) != nullptr) {    // NOLINT(concurrency-mt-unsafe)
            (void)putenv(const_cast<char*>(setting));  // NOLINT(concurrency-mt-unsafe)
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    ForgetInheritedSettings();
    for (int i = 2; i < argc; ++i) {
        (void)putenv(argv[i]);  // NOLINT(concurrency-mt-unsafe): the only thread
    }
    for (const auto& mode : kModes) {
        if (argc > 1 && mode.name == argv[1]) {
            mode.run();
            return EXIT_SUCCESS;
        }
    }
    (void)std::fprintf(stderr, "no such mode\n");
    return EXIT_FAILURE;
}
