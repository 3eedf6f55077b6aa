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
    LineReader(InputFile& file, const RecordLimit& limit) : m_input(file), m_limit(limit) {}

    InputState Next(std::string_view* data, Deadline deadline) override;

  private:
    InputState Take(std::size_t lineSize, std::size_t newlineSize, std::string_view* data);
    void CheckSize(std::size_t lineSize) const;

    InputBuffer m_input;
    const RecordLimit m_limit;
    std::uint64_t m_line = 1;  // number of the line that is being read
};

InputState LineReader::Next(std::string_view* data, Deadline deadline) {
    std::size_t searched = 0;
    for (;;) {
        const std::string_view unread = m_input.Unread();
        const std::size_t newline = unread.find('\n', searched);
        if (newline != std::string_view::npos) {
            return Take(newline, 1, data);
        }
        searched = unread.size();
        CheckSize(searched);
        const InputState state = m_input.Fill(deadline);
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
    if (lineSize > m_limit.dataSizeMax) {
        throw ToolError(fmt::format("line {} of {} is longer than {} bytes, {}", m_line,
                                    m_input.FileName(), m_limit.dataSizeMax, m_limit.reason));
    }
}

}  // namespace

std::unique_ptr<RecordReader> MakeLineReader(InputFile& file, const RecordLimit& limit) {
    return std::make_unique<LineReader>(file, limit);
}

}  // namespace k9repl
