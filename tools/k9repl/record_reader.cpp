// Reads records that are lines, and records that follow their length. The length comes from the
// input, so it is checked before it is used.
#include "record_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tool_error.h"

namespace k9repl {

namespace {

constexpr std::size_t kChunkSize = std::size_t{256} * 1024;

// A window on the input that grows until a whole record lies in it in one piece.
class InputBuffer {
  public:
    explicit InputBuffer(InputFile& file) : m_file(file) {}

    // The bytes that were read and not consumed. Valid until the next Fill.
    std::string_view Unread() const { return {m_bytes.data() + m_begin, m_end - m_begin}; }
    // REQUIRES: size <= Unread().size(). The bytes stay valid until the next Fill.
    void Consume(std::size_t size);
    // Reads more bytes after the unread ones, or none if no bytes arrive before the deadline. Once
    // it has returned kEnd, it always does.
    InputState Fill(Deadline deadline);

    const std::string& FileName() const { return m_file.Name(); }

  private:
    InputFile& m_file;
    std::vector<char> m_bytes;
    std::size_t m_begin = 0;  // of the unread bytes in m_bytes
    std::size_t m_end = 0;    // exclusive; equals m_begin if there are no unread bytes
    bool m_ended = false;     // the input has no more bytes
};

void InputBuffer::Consume(std::size_t size) {
    assert(size <= m_end - m_begin);
    m_begin += size;
}

InputState InputBuffer::Fill(Deadline deadline) {
    if (m_ended) {
        return InputState::kEnd;
    }
    const std::size_t unread = m_end - m_begin;
    if (unread + kChunkSize > m_bytes.size()) {
        m_bytes.resize(unread * 2 + kChunkSize);
    }
    std::memmove(m_bytes.data(), m_bytes.data() + m_begin, unread);
    m_begin = 0;
    m_end = unread;
    std::size_t got = 0;
    const InputState state = m_file.Read(m_bytes.data() + m_end, kChunkSize, &got, deadline);
    m_end += got;
    m_ended = state == InputState::kEnd;
    return state;
}

class LineReader : public RecordReader {
  public:
    LineReader(InputFile& file, const RecordLimit& limit) : m_input(file), m_limit(limit) {}

    InputState Next(std::string_view* data, Deadline deadline) override;

  private:
    InputState Take(std::size_t lineSize, std::size_t newlineSize, std::string_view* data);
    void CheckSize(std::size_t lineSize) const;

    InputBuffer m_input;
    const RecordLimit m_limit;
    std::uint64_t m_line = 1;  // number of the line that is being read; the first one is 1
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
    // Fills the buffer until it has `size` unread bytes, or the input ends or is interrupted, or
    // the deadline has passed.
    InputState Need(std::size_t size, Deadline deadline);
    void CheckLength(std::uint32_t length) const;
    [[noreturn]] void FailCutOff(const std::string& what) const;

    InputBuffer m_input;
    const RecordLimit m_limit;
    std::uint64_t m_record = 1;  // number of the record that is being read; the first one is 1
    std::uint64_t m_offset = 0;  // of its length, in bytes from the beginning of the input
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

std::unique_ptr<RecordReader> MakeLineReader(InputFile& file, const RecordLimit& limit) {
    return std::make_unique<LineReader>(file, limit);
}

std::unique_ptr<RecordReader> MakeLengthPrefixedReader(InputFile& file, const RecordLimit& limit) {
    return std::make_unique<LengthPrefixedReader>(file, limit);
}

}  // namespace k9repl
