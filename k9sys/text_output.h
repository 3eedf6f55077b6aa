// The end of a formatted text: puts characters into a bounded buffer and counts those that find
// no room too. Used by the formatter and the log line.
#ifndef K9SYS_TEXT_OUTPUT_H
#define K9SYS_TEXT_OUTPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace k9sys {

// One thread at a time. The buffer is not owned; `size` 0 means no buffer, only counting.
class TextOutput {
  public:
    TextOutput(char* buffer, std::size_t size) : m_buffer(buffer), m_size(size) {}

    void Put(std::string_view text) {
        const std::size_t fitting = Fitting(text.size());
        if (fitting != 0) {
            std::memcpy(m_buffer + Written(), text.data(), fitting);
        }
        m_length += text.size();
    }

    void Fill(char c, std::size_t count) {
        const std::size_t fitting = Fitting(count);
        if (fitting != 0) {
            std::memset(m_buffer + Written(), c, fitting);
        }
        m_length += count;
    }

    // Ends the text with a zero. The output takes no more text afterwards.
    void Terminate() {
        if (m_size != 0) {
            m_buffer[Written()] = '\0';
        }
    }

    // The length of the whole text, which may exceed the buffer.
    std::uint64_t Length() const { return m_length; }

    // The number of characters that are in the buffer: at most its size less one.
    std::size_t Written() const {
        const std::uint64_t room = m_size == 0 ? 0 : m_size - 1;
        return static_cast<std::size_t>(std::min(m_length, room));
    }

  private:
    std::size_t Fitting(std::size_t count) const {
        return m_size == 0 ? 0 : std::min(count, m_size - 1 - Written());
    }

    char* const m_buffer;
    const std::size_t m_size;
    std::uint64_t m_length = 0;
};

}  // namespace k9sys

#endif  // K9SYS_TEXT_OUTPUT_H
