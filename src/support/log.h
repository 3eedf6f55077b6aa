// Logging through the host's system library, with one switch for each call site: a disabled
// message costs a load and a test, its arguments are not evaluated. Used by every module above.
//
//   LOG_INFO(kLogStorage, "Add block %P,rev %I64d", ordinal, firstRev);
//   LOG_ERROR_CODE(rc, kLogStorage, "Failed to begin trans;state %d", state);
//
// Message texts are interface: hosts look for them. Arguments are checked against the directives
// when the statement is compiled (log_format.h).
#ifndef K9EREPL_SUPPORT_LOG_H
#define K9EREPL_SUPPORT_LOG_H

#include <k9sys/k9sys.h>

#include <atomic>

#include "support/log_format.h"

namespace k9erepl {

// The module names under which the library logs.
inline constexpr const char* kLogStorage = "k9eRepl-storage";
inline constexpr const char* kLogIndex = "k9eRepl-storage-idx";
inline constexpr const char* kLogTiming = "***TP***";

// The switch of one call site: null until the site's first execution has registered it, then the
// address of the system library's flag. Two threads may register a fresh site at once; both get
// the same address.
using LogSite = std::atomic<K9LogFlag*>;

inline bool LogSiteEnabled(K9LogFlag* flag) {
    // The system library may flip the flag at any time.
    return std::atomic_ref<K9LogFlag>(*flag).load(std::memory_order_relaxed) != 0;
}

}  // namespace k9erepl

// `format` must be a string literal. The switch is read with acquire because it may have been
// stored by another thread a moment ago; on x86 that is a plain load.
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
