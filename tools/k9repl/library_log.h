// Keeps what the library logs about a failure. The library tells causes in its log, not in its
// codes; the tool catches the error messages so that its own sentence can name the cause.
//
// When the user steers the log (K9SYS_LOG or K9SYS_LOG_FILE is set), messages go where the user
// wants them and nothing is caught.
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

// Safe for all threads: the library's own threads log too.
class LibraryLog {
  public:
    static LibraryLog& Instance();

    // Begins to catch. Called once, before the library is used.
    void Catch();

    // The text that explains `code`: of the first message caught with it, or, when the code only
    // says that an earlier failure stands in the way, of the first one caught. Empty when there is
    // none. Forgets everything caught so far.
    std::string TakeCauseOf(std::uint32_t code);

    // False when the user steers the log: nothing is known of what the library said.
    bool IsCatching() const { return m_catching; }

    // Takes the first message caught that begins with `begin` and leaves the others.
    std::optional<LibraryMessage> TakeBeginningWith(std::string_view begin);

    // The first message caught. Forgets everything caught so far.
    std::optional<LibraryMessage> TakeFirst();

    // Hands each information message of the library to `listener` from now on, on the thread that
    // logs; an empty listener ends it, and is not running any more when this returns. Does nothing
    // when nothing is caught. The listener must not throw, nor use this object.
    using Listener = std::function<void(std::string_view text)>;
    void Listen(Listener listener);

    // Prints on standard error what was caught though everything went well in the end, a line each,
    // and forgets it.
    void TellRest(const std::string& toolName);

  private:
    LibraryLog() = default;
    static void K9SYS_CALL OnMessage(K9SysLogLevel level, const char* module, const char* text,
                                     std::uint32_t code, void* context);
    void Add(std::uint32_t code, const char* text);
    void Tell(const char* text);

    bool m_catching = false;  // set before another thread runs
    std::mutex m_mutex;
    Listener m_listener;                     // guarded by m_mutex
    std::vector<LibraryMessage> m_messages;  // guarded by m_mutex; at most kMessagesMax
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_LIBRARY_LOG_H
