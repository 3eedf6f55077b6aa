// Moves the unread bytes to the front and reads behind them.
#include "input_buffer.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <limits>

namespace k9repl {

namespace {

constexpr std::size_t kChunkSize = std::size_t{256} * 1024;

}  // namespace

int MillisecondsUntil(Deadline deadline) {
    if (deadline == kNoDeadline) {
        return -1;
    }
    using std::chrono::milliseconds;
    const auto left = std::chrono::ceil<milliseconds>(deadline - Deadline::clock::now()).count();
    constexpr std::int64_t kLongest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongest));
}

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

}  // namespace k9repl
