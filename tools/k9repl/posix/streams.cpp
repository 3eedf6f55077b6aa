// Streams over descriptors. Every wait also watches the descriptor for interrupts.
#include "streams.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>

#include "interrupts.h"
#include "posix/interruptible_output.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

namespace {

int InterruptDescriptor() {
    return static_cast<int>(InterruptWaitObject());
}

// Waits until standard output takes bytes again, which it says only where the process that made it
// has set it to do so.
void WaitForRoom() {
    pollfd waits[] = {{STDOUT_FILENO, POLLOUT, 0}, {InterruptDescriptor(), POLLIN, 0}};
    // Dropped: the write that follows meets whatever is wrong.
    (void)poll(waits, InterruptSignal() == 0 ? 2 : 1, -1);
}

}  // namespace

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

std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt) {
    const bool stops = onInterrupt == OnInterrupt::kStop;
    const int output = stops ? InterruptibleOutput() : STDOUT_FILENO;
    while (!bytes.empty()) {
        const ssize_t written = write(output, bytes.data(), bytes.size());
        const std::error_code error = written < 0 ? LastError() : std::error_code();
        if (written > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        }
        if (stops && !bytes.empty() && InterruptSignal() != 0) {
            return std::make_error_code(std::errc::interrupted);
        }
        if (error == std::errc::resource_unavailable_try_again) {
            WaitForRoom();
        } else if (error && error != std::errc::interrupted) {
            return error;
        }
    }
    return {};
}

// Opens /dev/null for a closed stream, in the direction in which the stream is not used.
void PrepareStandardStreams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) < 0) {
            // open returns the lowest free descriptor, which is this one.
            open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

bool StandardErrorIsTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

bool StandardInputIsTerminal() {
    return isatty(STDIN_FILENO) == 1;
}

bool StandardErrorErasesLines() {
    return StandardErrorIsTerminal();
}

}  // namespace k9repl
