// Records with their length in front. The length is a claim: it is checked before it is used.
#include <fmt/format.h>

#include <cstdint>

#include "input_buffer.h"
#include "record_reader.h"
#include "tool_error.h"

namespace k9repl {

namespace {

constexpr std::size_t kLengthSize = 4;

std::uint32_t LoadLittleEndian(std::string_view bytes) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < kLengthSize; ++i) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    }
    return value;
}

class LengthPrefixedReader : public RecordReader {
  public:
    LengthPrefixedReader(InputFile& file, const RecordLimit& limit)
        : m_input(file), m_limit(limit) {}

    InputState Next(std::string_view* data, Deadline deadline) override;

  private:
    // Fills until `size` bytes are there, the input ends or is interrupted, or the deadline is
    // over.
    InputState Need(std::size_t size, Deadline deadline);
    void CheckLength(std::uint32_t length) const;
    [[noreturn]] void FailCutOff(const std::string& what) const;

    InputBuffer m_input;
    const RecordLimit m_limit;
    std::uint64_t m_record = 1;  // number of the record that is being read
    std::uint64_t m_offset = 0;  // of its length in the input
};

InputState LengthPrefixedReader::Next(std::string_view* data, Deadline deadline) {
    InputState state = Need(kLengthSize, deadline);
    if (state == InputState::kEnd && !m_input.Unread().empty()) {
        FailCutOff(fmt::format("{} of the 4 bytes of its length", m_input.Unread().size()));
    }
    if (state != InputState::kData) {
        return state;
    }
    const std::uint32_t length = LoadLittleEndian(m_input.Unread());
    CheckLength(length);
    state = Need(kLengthSize + length, deadline);
    if (state == InputState::kEnd) {
        FailCutOff(
            fmt::format("{} of its {} bytes", m_input.Unread().size() - kLengthSize, length));
    }
    if (state != InputState::kData) {
        return state;
    }
    *data = m_input.Unread().substr(kLengthSize, length);
    m_input.Consume(kLengthSize + length);
    ++m_record;
    m_offset += kLengthSize + length;
    return InputState::kData;
}

InputState LengthPrefixedReader::Need(std::size_t size, Deadline deadline) {
    InputState state = InputState::kData;
    while (state == InputState::kData && m_input.Unread().size() < size) {
        state = m_input.Fill(deadline);
    }
    return state;
}

void LengthPrefixedReader::CheckLength(std::uint32_t length) const {
    if (length > m_limit.dataSizeMax) {
        throw ToolError(
            fmt::format("record {} of {}, at byte {}, claims {} bytes, more than {}, {}", m_record,
                        m_input.FileName(), m_offset, length, m_limit.dataSizeMax, m_limit.reason));
    }
}

void LengthPrefixedReader::FailCutOff(const std::string& what) const {
    throw ToolError(fmt::format("record {} of {}, at byte {}, is cut off: the input ends with {}",
                                m_record, m_input.FileName(), m_offset, what));
}

}  // namespace

std::unique_ptr<RecordReader> MakeLengthPrefixedReader(InputFile& file, const RecordLimit& limit) {
    return std::make_unique<LengthPrefixedReader>(file, limit);
}

}  // namespace k9repl
