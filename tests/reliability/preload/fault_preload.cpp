// libk9erepl_fault.so: stands in front of the C library and makes calls on files fail, fall short
// or end the process. Loaded by LD_PRELOAD in front of a client of the shared library; what it does
// is said in fault_environment.h.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "fault_environment.h"

namespace k9erepl::reliability {

namespace {

constexpr int kDescriptorsMax = 1024;

enum class Action { kNone, kKillBefore, kKillInside, kKillAfter, kShort, kError };

struct Plan {
    const char* folder = nullptr;
    const char* call = nullptr;
    const char* skip = nullptr;
    std::uint64_t at = 0;
    bool sticky = false;
    Action action = Action::kNone;
    int error = 0;
    FaultShared* shared = nullptr;
};
Plan g_plan;
std::array<std::atomic<bool>, kDescriptorsMax> g_counted;  // files below the folder

template <typename Function>
Function* Real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
#define REAL(name) Real<decltype(::name)>(#name)

Action ParseAction(const char* text) {
    static constexpr std::array<const char*, 4> kNames = {"kill-before", "kill-inside",
                                                          "kill-after", "short"};
    for (std::size_t i = 0; i < kNames.size(); ++i) {
        if (std::strcmp(text, kNames.at(i)) == 0) {
            return static_cast<Action>(i + 1);
        }
    }
    g_plan.error = std::atoi(text);
    return Action::kError;
}

// Before any thread of the client's exists.
__attribute__((constructor)) void Begin() {
    g_plan.folder = std::getenv("K9EREPL_FAULT_FOLDER");
    g_plan.call = std::getenv("K9EREPL_FAULT_CALL");
    g_plan.skip = std::getenv("K9EREPL_FAULT_SKIP");
    g_plan.sticky = std::getenv("K9EREPL_FAULT_STICKY") != nullptr;
    if (const char* at = std::getenv("K9EREPL_FAULT_AT"); at != nullptr) {
        g_plan.at = std::strtoull(at, nullptr, 10);
    }
    if (const char* action = std::getenv("K9EREPL_FAULT_ACTION"); action != nullptr) {
        g_plan.action = ParseAction(action);
    }
    const char* const path = std::getenv("K9EREPL_FAULT_SHARED");
    const int file = path == nullptr ? -1 : REAL(open)(path, O_RDWR | O_CLOEXEC);
    void* const shared =
        file < 0 ? MAP_FAILED
                 : mmap(nullptr, sizeof(FaultShared), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (file >= 0) {
        REAL(close)(file);
    }
    if (shared == MAP_FAILED) {
        g_plan.folder = nullptr;
    } else {
        g_plan.shared = static_cast<FaultShared*>(shared);
    }
}

bool Counts(const char* path) {
    return g_plan.folder != nullptr && std::strstr(path, g_plan.folder) == path &&
           (g_plan.skip == nullptr || std::strstr(path, g_plan.skip) == nullptr);
}

bool Counts(int file) {
    return file >= 0 && file < kDescriptorsMax && g_counted.at(static_cast<std::size_t>(file));
}

// What becomes of a call.
Action Decide(const char* name) {
    if (g_plan.call != nullptr && std::strcmp(name, g_plan.call) != 0) {
        return Action::kNone;
    }
    const std::uint64_t number = ++g_plan.shared->calls;
    if (g_plan.at == 0 || (g_plan.sticky ? number < g_plan.at : number != g_plan.at)) {
        return Action::kNone;
    }
    ++g_plan.shared->struck;
    return g_plan.action;
}

void Die() {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

// A call that has no halves.
template <typename Call>
auto Make(bool counts, const char* name, Call call) -> decltype(call()) {
    const Action action = counts ? Decide(name) : Action::kNone;
    if (action == Action::kError) {
        errno = g_plan.error;
        return -1;
    }
    if (action == Action::kKillBefore) {
        Die();
    }
    const auto result = call();
    if (action == Action::kKillAfter || action == Action::kKillInside) {
        Die();
    }
    return result;
}

template <typename Transfer>
ssize_t MakeTransfer(int file, const char* name, std::size_t size, Transfer transfer) {
    const Action action = Counts(file) ? Decide(name) : Action::kNone;
    if (action == Action::kShort) {
        return transfer(size / 2);
    }
    if (action == Action::kKillInside) {
        transfer(size / 2);
        Die();
    }
    if (action == Action::kError) {
        errno = g_plan.error;
        return -1;
    }
    if (action == Action::kKillBefore) {
        Die();
    }
    const ssize_t done = transfer(size);
    if (action == Action::kKillAfter) {
        Die();
    }
    return done;
}

int Open(const char* path, int flags, mode_t mode) {
    const bool counts = Counts(path);
    const int file = Make(counts, "open", [&] { return REAL(open)(path, flags, mode); });
    if (file >= 0 && file < kDescriptorsMax) {
        g_counted.at(static_cast<std::size_t>(file)) = counts;
    }
    return file;
}

}  // namespace

// The functions that take the place of the C library's.
extern "C" {

__attribute__((visibility("default"))) int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    return Open(path, flags, mode);
}

__attribute__((visibility("default"))) int close(int file) {
    // Gone whatever is answered, as on Linux.
    const bool counts = Counts(file);
    if (counts) {
        g_counted.at(static_cast<std::size_t>(file)) = false;
    }
    const Action action = counts ? Decide("close") : Action::kNone;
    if (action == Action::kKillBefore) {
        Die();
    }
    const int result = REAL(close)(file);
    if (action == Action::kKillAfter || action == Action::kKillInside) {
        Die();
    }
    if (action == Action::kError) {
        errno = g_plan.error;
        return -1;
    }
    return result;
}

__attribute__((visibility("default"))) ssize_t read(int file, void* buffer, std::size_t size) {
    return MakeTransfer(file, "read", size,
                        [&](std::size_t part) { return REAL(read)(file, buffer, part); });
}

__attribute__((visibility("default"))) ssize_t write(int file, const void* data, std::size_t size) {
    return MakeTransfer(file, "write", size,
                        [&](std::size_t part) { return REAL(write)(file, data, part); });
}

__attribute__((visibility("default"))) off_t lseek(int file, off_t offset, int whence) noexcept {
    return Make(Counts(file), "lseek", [&] { return REAL(lseek)(file, offset, whence); });
}

__attribute__((visibility("default"))) int ftruncate(int file, off_t size) noexcept {
    return Make(Counts(file), "ftruncate", [&] { return REAL(ftruncate)(file, size); });
}

__attribute__((visibility("default"))) int fstat(int file, struct stat* info) noexcept {
    return Make(Counts(file), "fstat", [&] { return REAL(fstat)(file, info); });
}

__attribute__((visibility("default"))) int fdatasync(int file) {
    return Make(Counts(file), "fdatasync", [&] { return REAL(fdatasync)(file); });
}

__attribute__((visibility("default"))) int fsync(int file) {
    return Make(Counts(file), "fsync", [&] { return REAL(fsync)(file); });
}

__attribute__((visibility("default"))) int rename(const char* from, const char* to) noexcept {
    return Make(Counts(from), "rename", [&] { return REAL(rename)(from, to); });
}

__attribute__((visibility("default"))) int link(const char* old, const char* name) noexcept {
    return Make(Counts(old), "link", [&] { return REAL(link)(old, name); });
}

__attribute__((visibility("default"))) int unlink(const char* path) noexcept {
    return Make(Counts(path), "unlink", [&] { return REAL(unlink)(path); });
}

__attribute__((visibility("default"))) int fchmod(int file, mode_t mode) noexcept {
    return Make(Counts(file), "fchmod", [&] { return REAL(fchmod)(file, mode); });
}

}  // extern "C"

}  // namespace k9erepl::reliability
