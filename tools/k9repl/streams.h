// The tool's streams: the input of append, standard output, and whether they lead to a terminal,
// where somebody watches and can answer. posix/ and windows/ have one source each.
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

// The milliseconds from now to `deadline`, rounded up: 0 when it is over, -1 for kNoDeadline.
inline int MillisecondsUntil(Deadline deadline) {
    if (deadline == kNoDeadline) {
        return -1;
    }
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Deadline::clock::now()).count();
    constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongest));
}

struct Transfer;  // a read or a write under way; on Windows only

// The bytes that append reads: a file, or standard input. A wait for them ends with an interrupt.
class InputFile {
  public:
    // "-" is standard input. Throws a ToolError that names the file.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // kData: *got receives how many bytes were read, 1 to `size`. kTimedOut: none came before the
    // deadline; data that is there already comes all the same. An interrupt comes before data.
    // Throws a ToolError that names the file. REQUIRES: after kTimedOut, the same `size` again.
    InputState Read(char* buffer, std::size_t size, std::size_t* got,
                    Deadline deadline = kNoDeadline);

    // The input in a sentence: "'log.txt'" or "standard input".
    const std::string& Name() const { return m_name; }

  private:
    std::string m_name;
    bool m_isStandardInput;
    std::intptr_t m_stream = -1;          // the system's descriptor or handle
    std::shared_ptr<Transfer> m_running;  // a read that outlasts its deadline; on Windows only
};

// --- Standard output

enum class OnInterrupt {
    kStop,    // an interrupt ends the wait for a reader: errc::interrupted
    kFinish,  // everything is written all the same
};

// Writes all of `bytes`, or returns why not all were written; errc::broken_pipe when nobody reads
// them any more. SIGPIPE must be ignored.
std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt);

// --- All three standard streams

// Gives each standard stream that the caller has closed a place holder, on which every use fails.
// Otherwise the storage file could be opened in its place, and messages be written into it. From
// here on bytes pass through the streams as they are, line ends too.
void PrepareStandardStreams();

bool StandardErrorIsTerminal();
bool StandardInputIsTerminal();

// True when standard error is a terminal that obeys "\r\033[K": go back and erase the line.
bool StandardErrorErasesLines();

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_STREAMS_H
