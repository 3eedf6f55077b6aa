// The bytes that append reads: a file, or standard input. A wait for them ends with an interrupt.
#ifndef K9EREPL_K9REPL_INPUT_FILE_H
#define K9EREPL_K9REPL_INPUT_FILE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace k9repl {

enum class InputState { kData, kEnd, kInterrupted, kTimedOut };

using Deadline = std::chrono::steady_clock::time_point;
inline constexpr Deadline kNoDeadline = Deadline::max();

// The milliseconds from now to `deadline`, rounded up: 0 when it is over, -1 for kNoDeadline.
int MillisecondsUntil(Deadline deadline);

struct Transfer;

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

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INPUT_FILE_H
