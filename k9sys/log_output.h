// Where enabled messages go: to the sink that was set, or as lines to the log file or standard
// error. Called by every log call that prints.
#ifndef K9SYS_LOG_OUTPUT_H
#define K9SYS_LOG_OUTPUT_H

#include <k9sys/k9sys.h>

#include <cstdio>
#include <mutex>

namespace k9sys {

// One enabled message. `text` may be changed by whoever prints it; `code` 0 is no code.
struct LogMessage {
    K9SysLogLevel level;
    const char* module;
    char* text;
    uint32_t code;
};

// Safe for all threads; one message at a time. Throws nothing.
class LogOutput {
  public:
    // A message that a sink itself logs is dropped.
    void Print(const LogMessage& message);

    // Null goes back to lines. When it returns, the previous sink is not running any more.
    void SetSink(K9SysLogSink sink, void* context);

    // The one object of the process. Never destroyed: others log while the process ends.
    static LogOutput& Instance();

  private:
    // REQUIRES: m_mutex held. Opens the file of K9SYS_LOG_FILE the first time.
    std::FILE* File();

    std::recursive_mutex m_mutex;  // recursive, so that a sink that sets a sink cannot hang
    // The rest is guarded by m_mutex.
    K9SysLogSink m_sink = nullptr;
    void* m_context = nullptr;
    std::FILE* m_file = nullptr;  // null until the first line
};

// Says on standard error what is wrong with the log's own settings.
void WriteComplaint(const char* complaint, const char* setting);

}  // namespace k9sys

#endif  // K9SYS_LOG_OUTPUT_H
