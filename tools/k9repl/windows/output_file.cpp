// Writes to a handle; what may block, in a way that an interrupt ends.
#include "output_file.h"

#include <memory>

#include "interrupts.h"
#include "windows/blocking_call.h"

namespace k9repl {

namespace {

bool WriteUnlessInterrupted(const std::shared_ptr<Transfer>& transfer) {
    if (InterruptSignal() != 0) {
        return false;
    }
    StartCall(&WriteAll, transfer);
    return AwaitCall(INFINITE) == CallEnd::kDone;
}

}  // namespace

std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt) {
    const auto transfer = std::make_shared<Transfer>();
    transfer->stream = GetStdHandle(STD_OUTPUT_HANDLE);
    transfer->bytes.assign(bytes.begin(), bytes.end());
    if (onInterrupt == OnInterrupt::kFinish) {
        WriteAll(*transfer);
    } else if (!WriteUnlessInterrupted(transfer)) {
        return std::make_error_code(std::errc::interrupted);
    }
    switch (transfer->error) {
        case NO_ERROR:
            return {};
        case ERROR_BROKEN_PIPE:
        case ERROR_NO_DATA:
            return std::make_error_code(std::errc::broken_pipe);
        default:
            return SystemErrorCode(transfer->error);
    }
}

}  // namespace k9repl
