// Formats enabled messages and hands them on.
#include "log_message.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>

#include "formatter.h"
#include "log_levels.h"
#include "log_output.h"

namespace k9sys {

namespace {

// Enough for nearly every message; longer ones, which quote a connection string, take memory.
constexpr std::size_t kUsualSize = 1024;
// A message is cut here at the latest.
constexpr std::uint64_t kMaxSize = std::uint64_t{1024} * 1024;

std::uint64_t FormatInto(char* buffer, std::size_t size, const char* format, va_list args) {
    TextOutput out(buffer, size);
    FormatText(out, format, args);
    return out.Length();
}

void FormatAndPrint(LogMessage message, const char* format, va_list args) {
    char usual[kUsualSize];
    message.text = usual;
    const std::uint64_t length = FormatInto(usual, sizeof usual, format, args);
    std::unique_ptr<char[]> longer;
    if (length >= sizeof usual) {
        const auto size = static_cast<std::size_t>(std::min(length + 1, kMaxSize));
        longer.reset(new (std::nothrow) char[size]);
        if (longer != nullptr) {
            message.text = longer.get();
            FormatInto(longer.get(), size, format, args);
        }
    }
    LogOutput::Instance().Print(message);
}

}  // namespace

K9LogFlag* Log(K9SysLogLevel level, uint32_t code, const char* module, const char* format,
               va_list args) {
    K9LogFlag* const flag = LogLevels::Instance().Flag(module, level);
    if (IsEnabled(flag)) {
        const LogMessage message = {level, module == nullptr ? "" : module, nullptr, code};
        FormatAndPrint(message, format == nullptr ? "" : format, args);
    }
    return flag;
}

}  // namespace k9sys
