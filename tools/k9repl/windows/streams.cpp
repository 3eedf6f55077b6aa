// Streams over handles. A call that may block runs on another thread, so that an interrupt or a
// deadline can end the wait for it. The C library must not translate line ends.
#include "streams.h"

#include <fcntl.h>
#include <io.h>

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "interrupts.h"
#include "platform/windows/win32.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

// A read or a write that may block forever. It runs on another thread, so that an interrupt or a
// deadline can end the wait for it.
struct Transfer {
    HANDLE stream = nullptr;
    std::vector<char> bytes;  // the bytes to write, or room for those to read
    std::size_t count = 0;    // bytes that were transferred
    DWORD error = NO_ERROR;   // NO_ERROR at the end of the input, too
};

namespace {

std::error_code SystemErrorCode(DWORD error) {
    return {static_cast<int>(error), std::system_category()};
}

// Only a console has a console mode; other character devices, such as NUL, have none.
bool IsConsole(HANDLE stream) {
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) != FALSE;
}

HANDLE HandleOf(std::intptr_t stream) {
    return reinterpret_cast<HANDLE>(stream);
}

// The event that is set when a call ends. One event is enough: only one call runs at a time, and
// after a call that was left running there is no other.
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

// Reads once, up to bytes.size() bytes. At the end of the stream, count and error are 0.
void ReadOnce(Transfer& transfer) {
    DWORD got = 0;
    DWORD error = NO_ERROR;
    do {
        SetLastError(NO_ERROR);
        const BOOL read = ReadFile(transfer.stream, transfer.bytes.data(),
                                   static_cast<DWORD>(transfer.bytes.size()), &got, nullptr);
        error = GetLastError();
        // Ctrl-C makes a read from a console end with success, no bytes and this error, even if
        // Ctrl-C is ignored.
        if (read != FALSE && (got > 0 || error != ERROR_OPERATION_ABORTED)) {
            error = NO_ERROR;
        }
    } while (error == ERROR_OPERATION_ABORTED);
    const bool isEnd = error == ERROR_BROKEN_PIPE || error == ERROR_HANDLE_EOF;
    transfer.error = isEnd ? NO_ERROR : error;
    transfer.count = got;
}

// Writes all of `bytes`, unless there is an error.
void WriteAll(Transfer& transfer) {
    constexpr std::size_t kPieceMax = std::size_t{32} * 1024;  // consoles refuse larger writes
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

enum class CallEnd { kDone, kInterrupted, kTimedOut };

// Runs `call` with `transfer` on a thread of the system's pool. The transfer belongs to the call
// until AwaitCall returns kDone, which may be never. Only one thread may use this, for one call at
// a time.
void StartCall(void (*call)(Transfer&), const std::shared_ptr<Transfer>& transfer) {
    auto pooled = std::make_unique<PooledCall>(PooledCall{call, transfer});
    if (QueueUserWorkItem(&RunPooled, pooled.get(), WT_EXECUTELONGFUNCTION) == FALSE) {
        transfer->count = 0;
        transfer->error = GetLastError();
        SetEvent(DoneEvent());
        return;
    }
    (void)pooled.release();  // RunPooled owns it now
}

// Waits for the end of the call that was started, at most `milliseconds`, or forever if that is
// INFINITE. Returns kInterrupted if a signal was caught, even if the call has ended. Unless it
// returns kDone, the call may still be running.
CallEnd AwaitCall(DWORD milliseconds) {
    const HANDLE waits[] = {HandleOf(InterruptWaitObject()), DoneEvent()};
    switch (WaitForMultipleObjects(2, waits, FALSE, milliseconds)) {
        case WAIT_OBJECT_0:
            return CallEnd::kInterrupted;
        case WAIT_TIMEOUT:
            return CallEnd::kTimedOut;
        default:
            return CallEnd::kDone;
    }
}

// True if a read from `stream` does not wait: it is a file on a disk, or a pipe that holds bytes.
bool ReadsAtOnce(HANDLE stream) {
    DWORD waiting = 0;
    return GetFileType(stream) == FILE_TYPE_DISK ||
           (PeekNamedPipe(stream, nullptr, 0, nullptr, &waiting, nullptr) != FALSE && waiting > 0);
}

constexpr std::size_t kReadMax = std::size_t{64} * 1024;

// In a console the Enter key produces a carriage return and a newline. In any other input a
// carriage return is an ordinary byte of its line.
void DropCarriageReturns(Transfer& typed) {
    const auto begin = typed.bytes.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(typed.count);
    typed.count = static_cast<std::size_t>(std::remove(begin, end, '\r') - begin);
}

void ReadTyped(Transfer& transfer) {
    do {
        ReadOnce(transfer);
        const bool isEnd = transfer.count == 0;
        DropCarriageReturns(transfer);
        if (isEnd) {
            return;
        }
    } while (transfer.count == 0);
}

bool WriteUnlessInterrupted(const std::shared_ptr<Transfer>& transfer) {
    if (InterruptSignal() != 0) {
        return false;
    }
    StartCall(&WriteAll, transfer);
    return AwaitCall(INFINITE) == CallEnd::kDone;
}

// The parent process may pass a handle that is closed, whose number the system would give to the
// next object that is opened.
bool IsOpen(HANDLE stream) {
    if (stream == nullptr || stream == INVALID_HANDLE_VALUE) {
        return false;
    }
    SetLastError(NO_ERROR);
    return GetFileType(stream) != FILE_TYPE_UNKNOWN || GetLastError() == NO_ERROR;
}

void Hold(DWORD stream, DWORD unusedAccess) {
    if (!IsOpen(GetStdHandle(stream))) {
        SetStdHandle(stream, CreateFileA("NUL", unusedAccess, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                         nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    }
}

}  // namespace

InputFile::InputFile(const std::string& path)
    : m_name(path == "-" ? std::string("standard input") : "'" + path + "'"),
      m_isStandardInput(path == "-") {
    HANDLE stream = GetStdHandle(STD_INPUT_HANDLE);
    if (!m_isStandardInput) {
        constexpr DWORD kShareEverything = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        stream = CreateFileA(path.c_str(), GENERIC_READ, kShareEverything, nullptr, OPEN_EXISTING,
                             FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
        if (stream == INVALID_HANDLE_VALUE) {
            throw SystemError("open the input " + m_name, LastError());
        }
    }
    m_stream = reinterpret_cast<std::intptr_t>(stream);
}

InputFile::~InputFile() {
    if (!m_isStandardInput) {
        CloseHandle(HandleOf(m_stream));
    }
}

// A read that has passed its deadline continues, and the next call takes its bytes.
InputState InputFile::Read(char* buffer, std::size_t size, std::size_t* got, Deadline deadline) {
    assert(size > 0);
    if (InterruptSignal() != 0) {
        return InputState::kInterrupted;
    }
    bool goesOn = m_running != nullptr;
    if (!goesOn) {
        m_running = std::make_shared<Transfer>();
        m_running->stream = HandleOf(m_stream);
        m_running->bytes.resize(std::min(size, kReadMax));
        goesOn = !ReadsAtOnce(m_running->stream);
        if (goesOn) {
            StartCall(IsConsole(m_running->stream) ? &ReadTyped : &ReadOnce, m_running);
        } else {
            ReadOnce(*m_running);
        }
    }
    const DWORD milliseconds = static_cast<DWORD>(MillisecondsUntil(deadline));  // -1 is INFINITE
    const CallEnd end = goesOn ? AwaitCall(milliseconds) : CallEnd::kDone;
    if (end != CallEnd::kDone) {
        return end == CallEnd::kTimedOut ? InputState::kTimedOut : InputState::kInterrupted;
    }
    const std::shared_ptr<Transfer> transfer = std::exchange(m_running, nullptr);
    if (transfer->error != NO_ERROR) {
        throw SystemError("read the input " + m_name, SystemErrorCode(transfer->error));
    }
    assert(transfer->count <= size);
    std::memcpy(buffer, transfer->bytes.data(), transfer->count);
    *got = transfer->count;
    return *got == 0 ? InputState::kEnd : InputState::kData;
}

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

void PrepareStandardStreams() {
    Hold(STD_INPUT_HANDLE, GENERIC_WRITE);
    Hold(STD_OUTPUT_HANDLE, GENERIC_READ);
    Hold(STD_ERROR_HANDLE, GENERIC_READ);
    for (FILE* stream : {stdin, stdout, stderr}) {
        const int descriptor = _fileno(stream);
        if (descriptor >= 0) {
            (void)_setmode(descriptor, _O_BINARY);
        }
    }
}

bool StandardErrorIsTerminal() {
    return IsConsole(GetStdHandle(STD_ERROR_HANDLE));
}

bool StandardInputIsTerminal() {
    return IsConsole(GetStdHandle(STD_INPUT_HANDLE));
}

// Consoles have understood such sequences since Windows 10, but only if this mode is set.
bool StandardErrorErasesLines() {
    const HANDLE stream = GetStdHandle(STD_ERROR_HANDLE);
    DWORD mode = 0;
    return GetConsoleMode(stream, &mode) != FALSE &&
           SetConsoleMode(stream, mode | ENABLE_PROCESSED_OUTPUT |
                                      ENABLE_VIRTUAL_TERMINAL_PROCESSING) != FALSE;
}

}  // namespace k9repl
