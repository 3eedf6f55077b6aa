// Builds the sentences of failures; has the table of the library's result codes and their meanings.
#include "tool_error.h"

#include <fmt/format.h>
#include <k9erepl/storage.h>

#include <cassert>

#include "interrupts.h"
#include "library_log.h"

namespace k9repl {

namespace {

struct ResultName {
    std::uint32_t code;
    const char* name;
    const char* meaning;
};

constexpr ResultName kResultNames[] = {
    {RC_OK, "RC_OK", "success"},
    {RC_NO_MEMORY, "RC_NO_MEMORY", "memory ran out"},
    {RC_INVALID_ARG, "RC_INVALID_ARG", "an argument, a setting or the file's signature is wrong"},
    {RC_BAD_DATA, "RC_BAD_DATA", "bad data in memory or in the file"},
    {RC_SYSTEM_ERROR, "RC_SYSTEM_ERROR", "a call to the operating system failed"},
    {RC_NO_WRITER, "RC_NO_WRITER", "no storage file is open for writing"},
    {RC_PATH_TOO_LONG, "RC_PATH_TOO_LONG", "the \"file\" value has 260 characters or more"},
    {RC_ENUM_STOP, "RC_ENUM_STOP", "the enumeration was stopped"},
    {RC_NOT_SUPPORTED, "RC_NOT_SUPPORTED", "the operation is not provided"},
    {RC_ALREADY, "RC_ALREADY", "the storage is already open or loaded"},
    {RC_NOT_FOUND, "RC_NOT_FOUND", "the expected item is not where it should be"},
    {RC_SHORT_READ, "RC_SHORT_READ", "the file ended too early"},
    {RC_BAD_SIZE, "RC_BAD_SIZE", "a setting is out of its range"},
    {RC_FILE_NOT_OPEN, "RC_FILE_NOT_OPEN", "the storage has no open file"},
    {RC_TIMEOUT, "RC_TIMEOUT", "a wait ran out"},
    {RC_WRONG_STATE, "RC_WRONG_STATE", "not allowed in the storage's present state"},
    {RC_NO_TRANSACTION, "RC_NO_TRANSACTION", "there is no transaction to commit"},
    {RC_TRANS_ROLLED_BACK, "RC_TRANS_ROLLED_BACK", "the transaction was rolled back"},
    {RC_NO_TRANSACTION_TO_ROLLBACK, "RC_NO_TRANSACTION_TO_ROLLBACK",
     "there is no transaction to roll back"},
    {RC_BEGIN_AFTER_ROLLBACK, "RC_BEGIN_AFTER_ROLLBACK", "the transaction was rolled back"},
    {RC_FILE_CORRUPT, "RC_FILE_CORRUPT", "the storage file's structure cannot be loaded"},
    {RC_IN_TRANSACTION, "RC_IN_TRANSACTION", "not allowed inside a transaction"},
    {RC_NOT_OPEN, "RC_NOT_OPEN", "the storage is not loaded"},
};

}  // namespace

std::string DescribeResult(std::uint32_t code) {
    for (const ResultName& result : kResultNames) {
        if (result.code == code) {
            return fmt::format("code {}, {}: {}", code, result.name, result.meaning);
        }
    }
    return fmt::format("code {}", code);
}

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
