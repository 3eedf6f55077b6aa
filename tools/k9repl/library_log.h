// Keeps what the library logs about a failure. The library's log names the cause, its result code
// does not; the tool catches the error messages so that its own message can name the cause.
//
// If the user steers the log, that is if K9SYS_LOG or K9SYS_LOG_FILE is set, messages go where the
// user wants them, and the tool catches nothing.
#ifndef K9EREPL_K9REPL_LIBRARY_LOG_H
#define K9EREPL_K9REPL_LIBRARY_LOG_H

#include <k9sys/k9sys.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace k9repl {

// An error message of the library with its result code.
struct LibraryMessage {
    std::uint32_t code;
    std::string text;
};

// Any thread may call it: the library's own threads log, too.
class LibraryLog {
  public:
    static LibraryLog& Instance();

    // Starts to catch messages, unless the user steers the log. Call it once, before the library is
    // used.
    void Catch();

    // Returns the text of the first message caught with `code`. If there is none, or if the code is
    // RC_WRONG_STATE, which only says that something failed earlier, returns the text of the first
    // message caught at all; empty if there is none. Forgets all messages.
    std::string TakeCauseOf(std::uint32_t code);

    // False if the user steers the log. Then we do not know what the library has logged.
    bool IsCatching() const { return m_catching; }

    // Removes and returns the first caught message that begins with `begin`, and keeps the others;
    // empty if there is none.
    std::optional<LibraryMessage> TakeBeginningWith(std::string_view begin);

    // Returns the first caught message, empty if there is none. Forgets all messages.
    std::optional<LibraryMessage> TakeFirst();

    // From now on passes each information message of the library to `listener`, on the thread that
    // logs it. An empty listener ends that; when this returns, the previous listener is no longer
    // running. Does nothing if messages are not caught. The listener must not throw and must not
    // use this object.
    using Listener = std::function<void(std::string_view text)>;
    void Listen(Listener listener);

    // Prints every message that is left on standard error, one on each line, and forgets them.
    // Called if the command has succeeded in spite of them.
    void TellRest(const std::string& toolName);

  private:
    LibraryLog() = default;
    static void K9SYS_CALL OnMessage(K9SysLogLevel level, const char* module, const char* text,
                                     std::uint32_t code, void* context);
    void Add(std::uint32_t code, const char* text);
    void Tell(const char* text);

    bool m_catching = false;  // set before another thread runs, constant afterwards
    std::mutex m_mutex;
    Listener m_listener;                     // guarded by m_mutex; empty if nobody listens
    std::vector<LibraryMessage> m_messages;  // guarded by m_mutex; at most kMessagesMax, in order
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_LIBRARY_LOG_H
