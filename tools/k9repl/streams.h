// The tool's streams: the input of append, standard output, and the question whether a stream leads
// to a terminal, where a user sees messages and can answer. posix/ and windows/ have one source
// each.
#ifndef K9EREPL_K9REPL_STREAMS_H
#define K9EREPL_K9REPL_STREAMS_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

namespace k9repl {

// --- Input

enum class InputState { kData, kEnd, kInterrupted, kTimedOut };

using Deadline = std::chrono::steady_clock::time_point;
inline constexpr Deadline kNoDeadline = Deadline::max();

// The milliseconds from now to `deadline`, rounded up: 0 if it has passed, -1 for kNoDeadline.
inline int MillisecondsUntil(Deadline deadline) {
    if (deadline == kNoDeadline) {
        return -1;
    }
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Deadline::clock::now()).count();
    constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongest));
}

struct Transfer;  // a read or a write in progress; on Windows only

// The bytes that append reads, from a file or from standard input. An interrupt ends a wait for
// them.
class InputFile {
  public:
    // "-" is standard input. Throws a ToolError that names the file.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // Reads into `buffer`. kData: *got receives how many bytes were read, 1 to `size`. kTimedOut:
    // no bytes arrived before the deadline. If the deadline has passed already, still reads bytes
    // that are there. kInterrupted: a signal was caught, even if there are bytes to read.
    // Throws a ToolError that names the file. REQUIRES: after kTimedOut, the same `size` again.
    InputState Read(char* buffer, std::size_t size, std::size_t* got,
                    Deadline deadline = kNoDeadline);

    // The input in a sentence: "'log.txt'" or "standard input".
    const std::string& Name() const { return m_name; }

  private:
    std::string m_name;
    bool m_isStandardInput;               // then the stream is not ours to close
    std::intptr_t m_stream = -1;          // the system's descriptor or handle
    std::shared_ptr<Transfer> m_running;  // a read that has passed its deadline, Windows only; null
};

// --- Standard output

enum class OnInterrupt {
    kStop,    // an interrupt ends the wait for the reader, with errc::interrupted
    kFinish,  // everything is written in spite of an interrupt
};

// Writes all of `bytes`, or returns why it has not: errc::broken_pipe if the reader is gone.
// REQUIRES: CatchInterrupts was called, which makes the process ignore SIGPIPE.
std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt);

// --- All three standard streams

// Opens a placeholder for each standard stream that the parent process has closed; every use of it
// fails. Otherwise the storage file could get the stream's number, and messages would be written
// into it. From then on bytes pass through the streams unchanged, line ends included.
void PrepareStandardStreams();

bool StandardErrorIsTerminal();
bool StandardInputIsTerminal();

// True if standard error is a terminal that understands "\r\033[K": go back and erase the line.
bool StandardErrorErasesLines();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STREAMS_H
