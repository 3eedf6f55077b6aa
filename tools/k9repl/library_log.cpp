// Catches the library's messages through the log sink of the system library.
#include "library_log.h"

#include <fmt/format.h>
#include <k9erepl/storage.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <system_error>
#include <utility>

#include "output.h"

namespace k9repl {

namespace {

// How many messages are kept at most. The first messages of a failure name its cause; a flood of
// later ones is dropped.
constexpr std::size_t kMessagesMax = 32;

constexpr const char* kStorageModule = "k9eRepl-storage";

bool UserSteersTheLog() {
    // Called before any other thread of the process runs.
    return std::getenv("K9SYS_LOG") != nullptr ||     // NOLINT(concurrency-mt-unsafe)
           std::getenv("K9SYS_LOG_FILE") != nullptr;  // NOLINT(concurrency-mt-unsafe)
}

// Appends the meaning of a system error to its number: "Cannot write data;sys-err 28" gets
// " (No space left on device)".
std::string WithSystemErrorInWords(std::string text) {
    static const std::regex kSystemError("sys-?err:? ([0-9]+)", std::regex::icase);
    std::smatch found;
    if (std::regex_search(text, found, kSystemError)) {
        const int error = std::atoi(found[1].str().c_str());  // NOLINT(cert-err34-c): digits
        const auto behind = static_cast<std::size_t>(found.position(0) + found.length(0));
        text.insert(behind, " (" + std::system_category().message(error) + ")");
    }
    return text;
}

// Removes the connection string, which only repeats the user's own input.
std::string Readable(const std::string& text) {
    return WithSystemErrorInWords(text.substr(0, text.find(";conn-str ")));
}

}  // namespace

LibraryLog& LibraryLog::Instance() {
    static LibraryLog* const log = new LibraryLog;  // outlives every thread that may still log
    return *log;
}

void LibraryLog::Catch() {
    if (!UserSteersTheLog()) {
        m_catching = true;
        K9SysSetLogSink(&LibraryLog::OnMessage, this);
    }
}

void K9SYS_CALL LibraryLog::OnMessage(K9SysLogLevel level, const char* /*module*/, const char* text,
                                      std::uint32_t code, void* context) {
    auto* const log = static_cast<LibraryLog*>(context);
    if (level == K9SYS_LOG_ERROR) {
        log->Add(code, text);
    } else if (level == K9SYS_LOG_INFO) {
        log->Tell(text);
    }
}

void LibraryLog::Add(std::uint32_t code, const char* text) {
    const std::lock_guard guard(m_mutex);
    if (m_messages.size() < kMessagesMax) {
        m_messages.push_back({code, text});
    }
}

void LibraryLog::Tell(const char* text) {
    const std::lock_guard guard(m_mutex);
    if (m_listener) {
        m_listener(text);
    }
}

void LibraryLog::Listen(Listener listener) {
    if (!m_catching) {
        return;
    }
    // If there is no memory to set the level, the listener gets no messages; nothing else is lost.
    K9SysSetLogLevel(kStorageModule, listener ? K9SYS_LOG_INFO : K9SYS_LOG_ERROR);
    const std::lock_guard guard(m_mutex);
    m_listener = std::move(listener);
}

std::string LibraryLog::TakeCauseOf(std::uint32_t code) {
    const std::lock_guard guard(m_mutex);
    const std::vector<LibraryMessage> messages = std::exchange(m_messages, {});
    auto cause = std::find_if(messages.begin(), messages.end(),
                              [code](const LibraryMessage& m) { return m.code == code; });
    if (code == RC_WRONG_STATE || cause == messages.end()) {
        cause = messages.begin();
    }
    return cause == messages.end() ? std::string() : Readable(cause->text);
}

std::optional<LibraryMessage> LibraryLog::TakeBeginningWith(std::string_view begin) {
    const std::lock_guard guard(m_mutex);
    const auto found = std::find_if(m_messages.begin(), m_messages.end(), [&](const auto& message) {
        return message.text.starts_with(begin);
    });
    if (found == m_messages.end()) {
        return std::nullopt;
    }
    const LibraryMessage message = *found;
    m_messages.erase(found);
    return message;
}

std::optional<LibraryMessage> LibraryLog::TakeFirst() {
    const std::lock_guard guard(m_mutex);
    const std::vector<LibraryMessage> messages = std::exchange(m_messages, {});
    if (messages.empty()) {
        return std::nullopt;
    }
    return LibraryMessage{messages.front().code, Readable(messages.front().text)};
}

void LibraryLog::TellRest(const std::string& toolName) {
    const std::lock_guard guard(m_mutex);
    for (const LibraryMessage& message : std::exchange(m_messages, {})) {
        PrintMessage(
            fmt::format("{}: note from the library: {}\n", toolName, Readable(message.text)));
    }
}

}  // namespace k9repl
