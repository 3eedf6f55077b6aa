// The bytes that append reads: a file, or standard input. A wait for them ends with an interrupt.
#ifndef K9EREPL_K9REPL_INPUT_FILE_H
#define K9EREPL_K9REPL_INPUT_FILE_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace k9repl {

enum class InputState { kData, kEnd, kInterrupted };

class InputFile {
  public:
    // "-" is standard input. Throws a ToolError that names the file.
    explicit InputFile(const std::string& path);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // kData: *got receives how many bytes were read, 1 to `size`. An interrupt comes before data.
    // Throws a ToolError that names the file.
    InputState Read(char* buffer, std::size_t size, std::size_t* got);

    // The input in a sentence: "'log.txt'" or "standard input".
    const std::string& Name() const { return m_name; }

  private:
    std::string m_name;
    bool m_isStandardInput;
    std::intptr_t m_stream = -1;  // the system's descriptor or handle
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INPUT_FILE_H
