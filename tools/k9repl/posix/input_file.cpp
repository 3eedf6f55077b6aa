// Reads from a descriptor, waiting for the interrupt descriptor too.
#include "input_file.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "interrupt_descriptor.h"
#include "interrupts.h"
#include "posix/last_error.h"
#include "tool_error.h"

namespace k9repl {

InputFile::InputFile(const std::string& path)
    : m_name(path == "-" ? std::string("standard input") : "'" + path + "'"),
      m_isStandardInput(path == "-") {
    m_stream = m_isStandardInput ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (m_stream < 0) {
        throw SystemError("open the input " + m_name, LastError());
    }
}

InputFile::~InputFile() {
    if (!m_isStandardInput) {
        close(static_cast<int>(m_stream));
    }
}

InputState InputFile::Read(char* buffer, std::size_t size, std::size_t* got, Deadline deadline) {
    assert(size > 0);
    const int descriptor = static_cast<int>(m_stream);
    for (;;) {
        pollfd waits[] = {{descriptor, POLLIN, 0}, {InterruptDescriptor(), POLLIN, 0}};
        const int ready = poll(waits, 2, MillisecondsUntil(deadline));
        if (ready < 0 && errno != EINTR) {
            throw SystemError("wait for the input " + m_name, LastError());
        }
        if (InterruptSignal() != 0) {
            return InputState::kInterrupted;
        }
        if (ready == 0 && deadline <= Deadline::clock::now()) {
            return InputState::kTimedOut;
        }
        if (ready <= 0) {
            continue;
        }
        const ssize_t count = read(descriptor, buffer, size);
        if (count >= 0) {
            *got = static_cast<std::size_t>(count);
            return count == 0 ? InputState::kEnd : InputState::kData;
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw SystemError("read the input " + m_name, LastError());
        }
    }
}

}  // namespace k9repl
