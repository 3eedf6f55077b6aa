// Writes to a handle; what may block, in a way that an interrupt ends.
#include "output_file.h"

#include <memory>

#include "windows/blocking_call.h"

namespace k9repl {

std::error_code WriteToStandardOutput(std::string_view bytes, OnInterrupt onInterrupt) {
    const auto transfer = std::make_shared<Transfer>();
    transfer->stream = GetStdHandle(STD_OUTPUT_HANDLE);
    transfer->bytes.assign(bytes.begin(), bytes.end());
    if (onInterrupt == OnInterrupt::kFinish) {
        WriteAll(*transfer);
    } else if (!RunUnlessInterrupted(&WriteAll, transfer)) {
        return std::make_error_code(std::errc::interrupted);
    }
    return transfer->error == NO_ERROR ? std::error_code() : SystemErrorCode(transfer->error);
}

}  // namespace k9repl
