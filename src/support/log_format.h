// The compile-time check of log statements: every directive of a format takes an argument of the
// width that the system library will read. Used by log.h alone.
#ifndef K9EREPL_SUPPORT_LOG_FORMAT_H
#define K9EREPL_SUPPORT_LOG_FORMAT_H

#include <cstddef>
#include <string_view>
#include <type_traits>

#include "platform/int_types.h"

namespace k9erepl {

enum class LogArg : u8 { kInt, kUnsigned, kI64, kU64, kDouble, kText, kPointer, kOther };

template <typename T>
constexpr LogArg LogArgKind() {
    using D = std::decay_t<T>;
    if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
        return LogArg::kText;
    } else if constexpr (std::is_pointer_v<D>) {
        return LogArg::kPointer;
    } else if constexpr (std::is_floating_point_v<D>) {
        return LogArg::kDouble;
    } else if constexpr (std::is_integral_v<D> && sizeof(D) < sizeof(i64)) {
        return std::is_signed_v<D> ? LogArg::kInt : LogArg::kUnsigned;
    } else if constexpr (std::is_integral_v<D>) {
        return std::is_signed_v<D> ? LogArg::kI64 : LogArg::kU64;
    } else {
        return LogArg::kOther;
    }
}

namespace log_format_detail {

inline constexpr std::string_view kFlags = "-+ #0123456789.";

// Whether an argument of kind `arg` is what the directive at the start of `text` (behind its
// flags, width and precision) reads; *length receives the directive's length.
constexpr bool Takes(std::string_view text, LogArg arg, std::size_t* length) {
    const bool word = arg == LogArg::kInt || arg == LogArg::kUnsigned;
    *length = 1;
    if (text.starts_with("I64d")) {
        *length = 4;
        return arg == LogArg::kI64;
    }
    if (text.starts_with("I64u") || text.starts_with("llu")) {
        *length = text.front() == 'I' ? 4 : 3;
        return arg == LogArg::kU64;
    }
    switch (text.empty() ? '\0' : text.front()) {
        case 'd':
            return word;
        case 'u':
        case 'X':
        case 'r':
        case 'R':
            return arg == LogArg::kUnsigned;
        case 's':
            return arg == LogArg::kText;
        case 'p':
            return arg == LogArg::kPointer || arg == LogArg::kText;
        case 'P':
            return sizeof(void*) == sizeof(u64) ? arg == LogArg::kU64 : arg == LogArg::kUnsigned;
        case 'f':
            return arg == LogArg::kDouble;
        default:
            return false;
    }
}

}  // namespace log_format_detail

// The argument types of one log statement.
template <typename... Args>
struct LogArgs {
    static constexpr bool Fit(std::string_view format) {
        constexpr std::size_t kCount = sizeof...(Args);
        constexpr LogArg kKinds[kCount + 1] = {LogArgKind<Args>()..., LogArg::kOther};
        std::size_t used = 0;
        while (!format.empty()) {
            if (format.front() != '%') {
                format.remove_prefix(1);
                continue;
            }
            format.remove_prefix(1);
            if (format.starts_with('%')) {
                format.remove_prefix(1);
                continue;
            }
            while (!format.empty() &&
                   (log_format_detail::kFlags.find(format.front()) != std::string_view::npos ||
                    format.front() == '*')) {
                if (format.front() == '*' && (used == kCount || kKinds[used++] != LogArg::kInt)) {
                    return false;
                }
                format.remove_prefix(1);
            }
            std::size_t length = 0;
            if (used == kCount || !log_format_detail::Takes(format, kKinds[used++], &length)) {
                return false;
            }
            format.remove_prefix(length);
        }
        return used == kCount;
    }
};

// Never defined: names the argument types of a log statement.
template <typename... Args>
LogArgs<Args...> LogArgsOf(const char* format, const Args&... args);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_LOG_FORMAT_H
