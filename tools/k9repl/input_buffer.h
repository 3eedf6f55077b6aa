// A growing window on the input, in which a record lies in one piece. Used by the record readers.
#ifndef K9EREPL_K9REPL_INPUT_BUFFER_H
#define K9EREPL_K9REPL_INPUT_BUFFER_H

#include <cstddef>
#include <string_view>
#include <vector>

#include "input_file.h"

namespace k9repl {

class InputBuffer {
  public:
    explicit InputBuffer(InputFile& file) : m_file(file) {}

    // What was read and not consumed; valid until the next Fill.
    std::string_view Unread() const { return {m_bytes.data() + m_begin, m_end - m_begin}; }
    // REQUIRES: size <= Unread().size(). The bytes stay valid until the next Fill.
    void Consume(std::size_t size);
    // Reads more bytes behind the unread ones, none when they do not come before the deadline. Once
    // the input has ended, it stays ended.
    InputState Fill(Deadline deadline);

    const std::string& FileName() const { return m_file.Name(); }

  private:
    InputFile& m_file;
    std::vector<char> m_bytes;
    std::size_t m_begin = 0;
    std::size_t m_end = 0;
    bool m_ended = false;
};

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_INPUT_BUFFER_H
