// The compile-time check of log statements: every directive of a format takes an argument of the
// width that the system library will read. Used by log.h alone.
//
// The compiler's own check of printf formats does not know the system library's directives, and a
// 64-bit argument under a 32-bit directive would shift all arguments behind it. Only the directives
// that our messages use are accepted here; docs/host-services.md, "Format directives", lists all
// that a system library knows.
#ifndef K9EREPL_SUPPORT_LOG_FORMAT_H
#define K9EREPL_SUPPORT_LOG_FORMAT_H

#include <cstddef>
#include <string_view>
#include <type_traits>

#include "platform/int_types.h"

namespace k9erepl {

// What an argument is after the promotions of a variable argument list. kInt and kUnsigned are 32
// bits wide, or narrower and widened to int; kOther fits no directive.
enum class LogArg : u8 { kInt, kUnsigned, kI64, kU64, kDouble, kText, kPointer, kOther };

// The kind of an argument of type T. Enumerations and classes are kOther: a statement converts them
// itself.
template <typename T>
constexpr LogArg LogArgKind() {
    // A string literal decays to a pointer; any other pointer to char counts as a text, too.
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

// What LogArgs::Fit is built from; nothing else uses it.
namespace log_format_detail {

// What may stand between the "%" and the directive, in any order: flags, width and precision. "*"
// is tested apart, because it takes an argument.
inline constexpr std::string_view kFlags = "-+ #0123456789.";

// Tells whether an argument of kind `arg` is what the directive at the start of `text` reads.
// `text` begins behind the flags, the width and the precision. *length receives the number of
// characters of the directive. An unknown directive takes nothing: false. Two are less strict than
// the rest:
//  - "%d" also takes an unsigned 32-bit number, as existing messages have it;
//  - "%p" also takes a text, whose address it prints.
// "%P" takes a number of the width of a pointer, so what fits it depends on the target.
constexpr bool Takes(std::string_view text, LogArg arg, std::size_t* length) {
    const bool word = arg == LogArg::kInt || arg == LogArg::kUnsigned;
    // Directives of several letters come first: they begin with letters that mean nothing alone.
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
    // Tells whether the arguments fit the directives of `format`, in number and in kind. Walks the
    // format from one "%" to the next: "%%" takes no argument, each "*" takes an int for a width or
    // a precision, and the directive takes one more. No argument may be left over.
    static constexpr bool Fit(std::string_view format) {
        // One element more than there are arguments, since an array must not be empty.
        constexpr std::size_t kCount = sizeof...(Args);
        constexpr LogArg kKinds[kCount + 1] = {LogArgKind<Args>()..., LogArg::kOther};
        std::size_t used = 0;
        while (!format.empty()) {
            if (format.front() != '%') {
                format.remove_prefix(1);
                continue;
            }
            format.remove_prefix(1);
            // "%%" prints a percent sign.
            if (format.starts_with('%')) {
                format.remove_prefix(1);
                continue;
            }
            // Flags, width and precision; a "*" among them takes an argument of its own.
            while (!format.empty() &&
                   (log_format_detail::kFlags.find(format.front()) != std::string_view::npos ||
                    format.front() == '*')) {
                if (format.front() == '*' && (used == kCount || kKinds[used++] != LogArg::kInt)) {
                    return false;
                }
                format.remove_prefix(1);
            }
            // The directive itself. A format that ends here has none, which Takes refuses.
            std::size_t length = 0;
            if (used == kCount || !log_format_detail::Takes(format, kKinds[used++], &length)) {
                return false;
            }
            format.remove_prefix(length);
        }
        return used == kCount;
    }
};

// Never defined and never called: the macro asks only for its result type, which names the argument
// types of a statement without evaluating the arguments.
template <typename... Args>
LogArgs<Args...> LogArgsOf(const char* format, const Args&... args);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_LOG_FORMAT_H
