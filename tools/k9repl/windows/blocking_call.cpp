// Runs the calls on threads of the system's pool, which keeps them for the next call.
#include "windows/blocking_call.h"

#include <algorithm>
#include <cassert>

#include "interrupts.h"
#include "windows/interrupt_event.h"

namespace k9repl {

namespace {

// One event for all calls: one runs at a time, and a call that was left running was the last.
HANDLE DoneEvent() {
    constexpr BOOL kManualReset = FALSE;
    static const HANDLE done = CreateEventA(nullptr, kManualReset, FALSE, nullptr);
    assert(done != nullptr);
    return done;
}

struct PooledCall {
    void (*call)(Transfer&);
    std::shared_ptr<Transfer> transfer;
};

DWORD WINAPI RunPooled(void* argument) {
    const std::unique_ptr<PooledCall> pooled(static_cast<PooledCall*>(argument));
    pooled->call(*pooled->transfer);
    SetEvent(DoneEvent());
    return 0;
}

}  // namespace

void ReadOnce(Transfer& transfer) {
    DWORD got = 0;
    DWORD error = NO_ERROR;
    do {
        SetLastError(NO_ERROR);
        const BOOL read = ReadFile(transfer.stream, transfer.bytes.data(),
                                   static_cast<DWORD>(transfer.bytes.size()), &got, nullptr);
        error = GetLastError();
        // Ctrl-C ends a console's read like this, also when somebody made it mean nothing.
        if (read != FALSE && (got > 0 || error != ERROR_OPERATION_ABORTED)) {
            error = NO_ERROR;
        }
    } while (error == ERROR_OPERATION_ABORTED);
    const bool isEnd = error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF;
    transfer.error = isEnd ? NO_ERROR : error;
    transfer.count = got;
}

void WriteAll(Transfer& transfer) {
    constexpr std::size_t kPieceMax = std::size_t{32} * 1024;  // consoles refuse large ones
    transfer.count = 0;
    transfer.error = NO_ERROR;
    while (transfer.count < transfer.bytes.size() && transfer.error == NO_ERROR) {
        const std::size_t piece = std::min(transfer.bytes.size() - transfer.count, kPieceMax);
        DWORD put = 0;
        if (WriteFile(transfer.stream, transfer.bytes.data() + transfer.count,
                      static_cast<DWORD>(piece), &put, nullptr) == FALSE) {
            transfer.error = GetLastError();
        }
        transfer.count += put;
    }
}

void StartCall(void (*call)(Transfer&), const std::shared_ptr<Transfer>& transfer) {
    auto pooled = std::make_unique<PooledCall>(PooledCall{call, transfer});
    if (QueueUserWorkItem(&RunPooled, pooled.get(), WT_EXECUTELONGFUNCTION) == FALSE) {
        transfer->count = 0;
        transfer->error = GetLastError();
        SetEvent(DoneEvent());
        return;
    }
    (void)pooled.release();  // RunPooled has it
}

CallEnd AwaitCall(DWORD milliseconds) {
    const HANDLE waits[] = {InterruptEvent(), DoneEvent()};
    switch (WaitForMultipleObjects(2, waits, FALSE, milliseconds)) {
        case WAIT_OBJECT_0:
            return CallEnd::kInterrupted;
        case WAIT_TIMEOUT:
            return CallEnd::kTimedOut;
        default:
            return CallEnd::kDone;
    }
}

bool ReadsAtOnce(HANDLE stream) {
    DWORD waiting = 0;
    return GetFileType(stream) == FILE_TYPE_DISK ||
           (PeekNamedPipe(stream, nullptr, 0, nullptr, &waiting, nullptr) != FALSE && waiting > 0);
}

}  // namespace k9repl
