// Hands messages to the sink, or writes them as lines.
#include "log_output.h"

#include <cassert>
#include <new>

#include "host.h"
#include "log_line.h"

namespace k9sys {

namespace {

thread_local bool t_insideSink = false;

class InsideSink {
  public:
    InsideSink() { t_insideSink = true; }
    ~InsideSink() { t_insideSink = false; }
    InsideSink(const InsideSink&) = delete;
    InsideSink& operator=(const InsideSink&) = delete;
};

std::FILE* OpenFile() {
    const char* const path = EnvironmentText("K9SYS_LOG_FILE");
    if (path == nullptr || *path == '\0') {
        return stderr;
    }
    std::FILE* const file = OpenForAppending(path);
    if (file == nullptr) {
        WriteComplaint("cannot open the log file, logging to standard error", path);
        return stderr;
    }
    // Unbuffered, so that a line is in the file when the process dies behind it.
    (void)std::setvbuf(file, nullptr, _IONBF, 0);
    return file;
}

}  // namespace

void LogOutput::Print(const LogMessage& message) {
    assert(message.text != nullptr);
    if (t_insideSink) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    if (m_sink == nullptr) {
        WriteLine(File(), message);
        return;
    }
    const InsideSink insideSink;
    m_sink(message.level, message.module, message.text, message.code, m_context);
}

void LogOutput::SetSink(K9SysLogSink sink, void* context) {
    const std::lock_guard lock(m_mutex);
    m_sink = sink;
    m_context = context;
}

std::FILE* LogOutput::File() {
    if (m_file == nullptr) {
        m_file = OpenFile();
    }
    return m_file;
}

LogOutput& LogOutput::Instance() {
    alignas(LogOutput) static unsigned char room[sizeof(LogOutput)];
    static LogOutput& output = *new (room) LogOutput;
    return output;
}

void WriteComplaint(const char* complaint, const char* setting) {
    (void)std::fprintf(stderr, "K9Sys: %s: \"%s\"\n", complaint, setting);
}

}  // namespace k9sys
