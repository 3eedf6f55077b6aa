// Logging through the host's system library, with one switch for each call site: a disabled message
// costs two loads and two tests, and its arguments are not evaluated. Used by every module above
// this one; docs/host-services.md describes the system library's side.
//
//   LOG_INFO(kLogStorage, "Add block %P,rev %I64d", ordinal, firstRev);
//   LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans;state %d", state);
//
// Message texts are interface: hosts look for them, so an existing text never changes. A text names
// its event first and its details behind a ";". Arguments are checked against the directives when
// the statement is compiled (log_format.h).
//
// Whoever finds a failure logs it, once, with the code that it returns. Statements may stand in any
// thread and under any lock: the system library never calls back into this one.
#ifndef K9EREPL_SUPPORT_LOG_H
#define K9EREPL_SUPPORT_LOG_H

#include <k9sys/k9sys.h>

#include <atomic>

#include "support/log_format.h"

namespace k9erepl {

// The module names under which the library logs: the storage with its file, writers and memory; the
// index file and its thread; the timing reports.
inline constexpr const char* kLogStorage = "k9eRepl-storage";
inline constexpr const char* kLogIndex = "k9eRepl-storage-idx";
inline constexpr const char* kLogTiming = "***TP***";

// The switch of one call site: null until the site's first execution has registered it, then the
// address of the system library's flag, which stays valid until the process ends. Two threads may
// register a fresh site at once; both get the same address.
using LogSite = std::atomic<K9LogFlag*>;

// Reads the flag of a registered site. REQUIRES: flag is not null.
inline bool LogSiteEnabled(K9LogFlag* flag) {
    // The system library may flip the flag at any time.
    return std::atomic_ref<K9LogFlag>(*flag).load(std::memory_order_relaxed) != 0;
}

}  // namespace k9erepl

// `format` must be a string literal. `registering` and `plain` are the two calls of the system
// library with all arguments: the first execution of a site calls `registering`, which logs if the
// site is enabled and returns its flag; every later one calls `plain` if the flag is set. The
// switch is read with acquire because another thread may have stored it a moment ago; on x86 that
// is a plain load.
#define K9EREPL_LOG(registering, plain, format, ...)                                         \
    do {                                                                                     \
        using K9LogArgs = decltype(::k9erepl::LogArgsOf(format __VA_OPT__(, ) __VA_ARGS__)); \
        static_assert(K9LogArgs::Fit(format), "the arguments do not fit the directives");    \
        static ::k9erepl::LogSite k9LogSite{nullptr};                                        \
        K9LogFlag* const k9LogFlag = k9LogSite.load(std::memory_order_acquire);              \
        if (k9LogFlag == nullptr) [[unlikely]] {                                             \
            k9LogSite.store(registering, std::memory_order_release);                         \
        } else if (::k9erepl::LogSiteEnabled(k9LogFlag)) [[unlikely]] {                      \
            plain;                                                                           \
        }                                                                                    \
    } while (false)

// The statements of the library. `module` is one of the names above; LOG_ERROR_CODE also takes the
// result code that the failed operation returns.
#define LOG_INFO(module, format, ...)                                              \
    K9EREPL_LOG(trcheckEx_K9LogInfoEx_(module, format __VA_OPT__(, ) __VA_ARGS__), \
                K9LogInfoEx(module, format __VA_OPT__(, ) __VA_ARGS__),            \
                format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_WARNING(module, format, ...)                                              \
    K9EREPL_LOG(trcheckEx_K9LogWarningEx_(module, format __VA_OPT__(, ) __VA_ARGS__), \
                K9LogWarningEx(module, format __VA_OPT__(, ) __VA_ARGS__),            \
                format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR(module, format, ...)                                              \
    K9EREPL_LOG(trcheckEx_K9LogErrorEx_(module, format __VA_OPT__(, ) __VA_ARGS__), \
                K9LogErrorEx(module, format __VA_OPT__(, ) __VA_ARGS__),            \
                format __VA_OPT__(, ) __VA_ARGS__)
#define LOG_ERROR_CODE(code, module, format, ...)                                                 \
    K9EREPL_LOG(trcheckEx_K9LogErrorWithCodeEx_(code, module, format __VA_OPT__(, ) __VA_ARGS__), \
                K9LogErrorWithCodeEx(code, module, format __VA_OPT__(, ) __VA_ARGS__),            \
                format __VA_OPT__(, ) __VA_ARGS__)

#endif  // K9EREPL_SUPPORT_LOG_H
