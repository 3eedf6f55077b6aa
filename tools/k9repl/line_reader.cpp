// Records that are lines.
#include <fmt/format.h>

#include <cstdint>

#include "input_buffer.h"
#include "record_reader.h"
#include "tool_error.h"

namespace k9repl {

namespace {

class LineReader : public RecordReader {
  public:
    LineReader(InputFile& file, std::uint32_t sizeMax) : m_input(file), m_sizeMax(sizeMax) {}

    InputState Next(std::string_view* data) override;

  private:
    InputState Take(std::size_t lineSize, std::size_t newlineSize, std::string_view* data);
    void CheckSize(std::size_t lineSize) const;

    InputBuffer m_input;
    std::uint32_t m_sizeMax;
    std::uint64_t m_line = 1;  // number of the line that is being read
};

InputState LineReader::Next(std::string_view* data) {
    std::size_t searched = 0;
    for (;;) {
        const std::string_view unread = m_input.Unread();
        const std::size_t newline = unread.find('\n', searched);
        if (newline != std::string_view::npos) {
            return Take(newline, 1, data);
        }
        searched = unread.size();
        CheckSize(searched);
        const InputState state = m_input.Fill();
        if (state == InputState::kEnd && searched > 0) {
            return Take(searched, 0, data);
        }
        if (state != InputState::kData) {
            return state;
        }
    }
}

InputState LineReader::Take(std::size_t lineSize, std::size_t newlineSize, std::string_view* data) {
    CheckSize(lineSize);
    *data = m_input.Unread().substr(0, lineSize);
    m_input.Consume(lineSize + newlineSize);
    ++m_line;
    return InputState::kData;
}

void LineReader::CheckSize(std::size_t lineSize) const {
    if (lineSize > m_sizeMax) {
        throw ToolError(
            fmt::format("line {} of {} is longer than {} bytes, the most that a record of this "
                        "storage can have (block_size less 24)",
                        m_line, m_input.FileName(), m_sizeMax));
    }
}

}  // namespace

std::unique_ptr<RecordReader> MakeLineReader(InputFile& file, std::uint32_t sizeMax) {
    return std::make_unique<LineReader>(file, sizeMax);
}

}  // namespace k9repl
