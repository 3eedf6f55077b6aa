// Composes and writes one line of the log file.
#include "log_line.h"

#include <chrono>
#include <ctime>

#include "host.h"
#include "level_list.h"

namespace k9sys {

namespace {

void FormatNow(char* text, std::size_t size) {
    using std::chrono::milliseconds;
    using std::chrono::system_clock;
    const auto now = std::chrono::floor<milliseconds>(system_clock::now());
    const auto second = std::chrono::floor<std::chrono::seconds>(now);
    std::tm local = {};
    LocalTime(system_clock::to_time_t(second), &local);
    const std::size_t length = std::strftime(text, size, "%Y-%m-%d %H:%M:%S", &local);
    (void)K9SysSNPrintf(text + length, static_cast<uint32_t>(size - length), ".%03d",
                        static_cast<int>((now - second).count()));
}

void RemoveControlCharacters(char* text) {
    constexpr unsigned char kFirstPrintable = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    for (; *text != '\0'; ++text) {
        const auto c = static_cast<unsigned char>(*text);
        if (c < kFirstPrintable || c == kDelete) {
            *text = '?';
        }
    }
}

}  // namespace

void WriteLine(std::FILE* file, const LogMessage& message) {
    char time[40];
    FormatNow(time, sizeof time);
    char code[24] = "";
    if (message.code != 0) {
        (void)K9SysSNPrintf(code, sizeof code, " (code %R)", message.code);
    }
    RemoveControlCharacters(message.text);
    (void)std::fprintf(file, "%s %s %s: %s%s\n", time, LevelName(message.level), message.module,
                       message.text, code);
}

}  // namespace k9sys
