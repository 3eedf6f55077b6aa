// Builds the sentences of failures.
#include "tool_error.h"

#include <fmt/format.h>

#include <cassert>

#include "interrupts.h"
#include "library_log.h"
#include "result_names.h"

namespace k9repl {

ToolError LibraryError(const std::string& action, std::uint32_t code) {
    const std::string cause = LibraryLog::Instance().TakeCauseOf(code);
    const std::string separator = cause.empty() ? "" : ": ";
    return ToolError(
        fmt::format("cannot {}{}{} ({})", action, separator, cause, DescribeResult(code)));
}

ToolError LoggedError(const std::string& action) {
    if (const auto message = LibraryLog::Instance().TakeFirst()) {
        return ToolError(fmt::format("cannot {}: {} ({})", action, message->text,
                                     DescribeResult(message->code)));
    }
    return ToolError(fmt::format("cannot {}; the library's log tells why", action));
}

ToolError SystemError(const std::string& action, std::error_code cause) {
    return ToolError(
        fmt::format("cannot {}: {} (system error {})", action, cause.message(), cause.value()));
}

ToolError InterruptError(const std::string& addition) {
    const int signal = InterruptSignal();
    assert(signal != 0);
    return ToolError(fmt::format("interrupted by {}{}", InterruptName(signal), addition),
                     kExitSignalBase + signal);
}

}  // namespace k9repl
