// Reads from a handle; what may block, in a way that an interrupt ends.
#include "input_file.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <memory>
#include <utility>

#include "interrupts.h"
#include "tool_error.h"
#include "windows/blocking_call.h"

namespace k9repl {

namespace {

constexpr std::size_t kReadMax = std::size_t{64} * 1024;

HANDLE HandleOf(std::intptr_t stream) {
    return reinterpret_cast<HANDLE>(stream);
}

// The Enter key types a carriage return and a newline; everywhere else a line ends with the newline
// alone, and a carriage return is a byte of its line.
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

// A read that outlasts its deadline goes on; the next call takes what it brings.
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

}  // namespace k9repl
