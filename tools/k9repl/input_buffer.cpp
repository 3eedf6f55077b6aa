// Moves the unread bytes to the front and reads behind them.
#include "input_buffer.h"

#include <cassert>
#include <cstring>

namespace k9repl {

namespace {

constexpr std::size_t kChunkSize = std::size_t{256} * 1024;

}  // namespace

void InputBuffer::Consume(std::size_t size) {
    assert(size <= m_end - m_begin);
    m_begin += size;
}

InputState InputBuffer::Fill() {
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
    const InputState state = m_file.Read(m_bytes.data() + m_end, kChunkSize, &got);
    m_end += got;
    m_ended = state == InputState::kEnd;
    return state;
}

}  // namespace k9repl
