// Writes pieces that never block once poll has said that there is room.
#include "output_file.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "interrupt_descriptor.h"
#include "interrupts.h"
#include "posix/last_error.h"

namespace k9repl {

namespace {

// Waits until a piece can be written; an interrupt comes first.
std::error_code WaitForRoom() {
    for (;;) {
        pollfd waits[] = {{STDOUT_FILENO, POLLOUT, 0}, {InterruptDescriptor(), POLLIN, 0}};
        const int ready = poll(waits, 2, -1);
        if (ready < 0 && errno != EINTR) {
            return LastError();
        }
        if (InterruptSignal() != 0) {
            return std::make_error_code(std::errc::interrupted);
        }
        if (ready > 0) {
            return {};
        }
    }
}

}  // namespace

std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt) {
    while (!bytes.empty()) {
        if (onInterrupt == OnInterrupt::kStop) {
            if (const std::error_code error = WaitForRoom()) {
                return error;
            }
        }
        const std::size_t piece = std::min<std::size_t>(bytes.size(), PIPE_BUF);
        const ssize_t written = write(STDOUT_FILENO, bytes.data(), piece);
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return LastError();
        }
        bytes.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return {};
}

}  // namespace k9repl
