// Starts children with CreateProcess. What a child writes comes through a named pipe, because only
// such a pipe can be waited for with a time-out.
#include "support/child_process.h"

#include <cstring>
#include <system_error>
#include <utility>

#include "platform/windows/win32.h"

namespace k9erepl::test {

namespace {

constexpr DWORD kPipeSize = 64 * 1024;
constexpr UINT kExceptions = 0xC0000000;  // statuses from here on tell an exception

HANDLE HandleOf(std::intptr_t handle) {
    return reinterpret_cast<HANDLE>(handle);
}

std::intptr_t NumberOf(HANDLE handle) {
    return reinterpret_cast<std::intptr_t>(handle);
}

[[noreturn]] void Throw(const std::string& what) {
    throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

HANDLE Checked(HANDLE handle, const std::string& what) {
    if (handle == nullptr || handle == INVALID_HANDLE_VALUE) {
        Throw(what);
    }
    return handle;
}

void Check(BOOL result, const std::string& what) {
    if (result == FALSE) {
        Throw(what);
    }
}

void CloseHandleOnce(std::intptr_t& handle) {
    if (handle != -1) {
        CloseHandle(HandleOf(std::exchange(handle, -1)));
    }
}

SECURITY_ATTRIBUTES Inheritable() {
    return {sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
}

// The child's end of a standard stream, which it inherits, and for a pipe the test's end.
struct Stream {
    HANDLE child = nullptr;
    std::intptr_t test = -1;
};

HANDLE OpenInheritable(const std::string& path, DWORD access, DWORD disposition) {
    SECURITY_ATTRIBUTES attributes = Inheritable();
    constexpr DWORD kShareEverything = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    return Checked(CreateFileA(path.c_str(), access, kShareEverything, &attributes, disposition,
                               FILE_ATTRIBUTE_NORMAL, nullptr),
                   path);
}

Stream OpenInput(const std::string& path) {
    if (!path.empty()) {
        return {OpenInheritable(path, GENERIC_READ, OPEN_EXISTING), -1};
    }
    HANDLE child = nullptr;
    HANDLE test = nullptr;
    SECURITY_ATTRIBUTES attributes = Inheritable();
    Check(CreatePipe(&child, &test, &attributes, kPipeSize), "make a pipe");
    Check(SetHandleInformation(test, HANDLE_FLAG_INHERIT, 0), "keep a pipe");
    return {child, NumberOf(test)};
}

Stream OpenOutput(const std::string& path) {
    if (!path.empty()) {
        return {OpenInheritable(path, GENERIC_WRITE, CREATE_ALWAYS), -1};
    }
    static unsigned number = 0;
    const std::string name = R"(\\.\pipe\k9erepl-test-)" + std::to_string(GetCurrentProcessId()) +
                             "-" + std::to_string(++number);
    constexpr DWORD kMode = PIPE_ACCESS_INBOUND | FILE_FLAG_OVERLAPPED;
    const HANDLE test = Checked(CreateNamedPipeA(name.c_str(), kMode, PIPE_TYPE_BYTE | PIPE_WAIT, 1,
                                                 kPipeSize, kPipeSize, 0, nullptr),
                                name);
    return {OpenInheritable(name, GENERIC_WRITE, OPEN_EXISTING), NumberOf(test)};
}

HANDLE OwnStandardError() {
    HANDLE copy = nullptr;
    const HANDLE self = GetCurrentProcess();
    constexpr BOOL kInheritable = TRUE;
    Check(DuplicateHandle(self, GetStdHandle(STD_ERROR_HANDLE), self, &copy, 0, kInheritable,
                          DUPLICATE_SAME_ACCESS),
          "pass standard error on");
    return copy;
}

// So that the C library of the child takes `argument` for one argument, as it is.
std::string Quoted(const std::string& argument) {
    std::string quoted = "\"";
    std::size_t backslashes = 0;
    for (const char c : argument) {
        if (c == '"') {
            quoted.append(backslashes + 1, '\\');
        }
        backslashes = c == '\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, '\\') + '"';
}

std::string CommandLine(const std::vector<std::string>& arguments) {
    std::string line;
    for (const std::string& argument : arguments) {
        line += (line.empty() ? "" : " ") + Quoted(argument);
    }
    return line;
}

// Names of variables are the same in capital letters and in small ones.
bool NamesItem(const std::string& start, const std::string& item) {
    return _strnicmp(item.c_str(), start.c_str(), start.size()) == 0;
}

// The test's environment with the changes that ChildOptions::environment asks for, as one block.
std::string EnvironmentBlock(const std::vector<std::string>& changes) {
    std::vector<std::string> items;
    char* const own = GetEnvironmentStringsA();
    for (const char* item = own; *item != '\0'; item += std::strlen(item) + 1) {
        items.emplace_back(item);
    }
    FreeEnvironmentStringsA(own);
    for (const std::string& change : changes) {
        const std::string start = change.substr(0, change.find('=')) + "=";
        std::erase_if(items, [&](const std::string& item) { return NamesItem(start, item); });
        if (change.find('=') != std::string::npos) {
            items.push_back(change);
        }
    }
    std::string block;
    for (const std::string& item : items) {
        block += item + '\0';
    }
    return block + '\0';
}

// Events of the console reach those who share it.
void MakeSureOfAConsole() {
    if (GetConsoleCP() == 0) {
        FreeConsole();
        Check(AllocConsole(), "get a console");
    }
}

HANDLE Start(const ChildOptions& options, HANDLE input, HANDLE output, HANDLE error) {
    std::string line = CommandLine(options.arguments);
    std::string environment = EnvironmentBlock(options.environment);
    STARTUPINFOA startup = {};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = input;
    startup.hStdOutput = output;
    startup.hStdError = error;
    PROCESS_INFORMATION started = {};
    constexpr BOOL kInheritHandles = TRUE;
    // On a busy machine Wine has failed, rarely, to set a process up, with this error. Should a
    // child have run all the same, its test sees what it did twice, and fails.
    BOOL done = FALSE;
    for (int attempt = 1; done == FALSE; ++attempt) {
        constexpr int kAttemptsMax = 5;
        done = CreateProcessA(nullptr, line.data(), nullptr, nullptr, kInheritHandles,
                              options.interruptible ? CREATE_NEW_PROCESS_GROUP : 0,
                              environment.data(), nullptr, &startup, &started);
        if (done == FALSE && (GetLastError() != ERROR_INTERNAL_ERROR || attempt == kAttemptsMax)) {
            Throw("start " + line);
        }
    }
    CloseHandle(started.hThread);
    return started.hProcess;
}

}  // namespace

ChildProcess::ChildProcess(const ChildOptions& options) {
    if (options.interruptible) {
        MakeSureOfAConsole();
    }
    const Stream input = OpenInput(options.inputPath);
    const Stream output = OpenOutput(options.outputPath);
    const HANDLE error =
        options.errorPath.empty() ? OwnStandardError() : OpenOutput(options.errorPath).child;
    m_process = NumberOf(Start(options, input.child, output.child, error));
    m_input = input.test;
    m_output = output.test;
    for (const HANDLE child : {input.child, output.child, error}) {
        CloseHandle(child);
    }
}

ChildProcess::~ChildProcess() {
    CloseInput();
    CloseOutput();
    if (m_process != -1) {
        TerminateProcess(HandleOf(m_process), kExceptions + kKillSignal);
        WaitForSingleObject(HandleOf(m_process), INFINITE);
        CloseHandleOnce(m_process);
    }
}

void ChildProcess::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        DWORD written = 0;
        Check(WriteFile(HandleOf(m_input), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                        nullptr),
              "write to the child");
        bytes.remove_prefix(written);
    }
}

void ChildProcess::CloseInput() {
    CloseHandleOnce(m_input);
}

std::size_t ChildProcess::Read(void* buffer, std::size_t size, int timeoutMs) {
    const HANDLE output = HandleOf(m_output);
    OVERLAPPED reading = {};
    constexpr BOOL kManualReset = TRUE;
    reading.hEvent = Checked(CreateEventA(nullptr, kManualReset, FALSE, nullptr), "make an event");
    DWORD got = 0;
    if (ReadFile(output, buffer, static_cast<DWORD>(size), nullptr, &reading) != FALSE ||
        GetLastError() == ERROR_IO_PENDING) {
        const DWORD timeout = timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
        if (WaitForSingleObject(reading.hEvent, timeout) != WAIT_OBJECT_0) {
            CancelIo(output);
        }
        // A cancelled read may have got something all the same.
        constexpr BOOL kWait = TRUE;
        if (GetOverlappedResult(output, &reading, &got, kWait) == FALSE) {
            got = 0;
        }
    }
    CloseHandle(reading.hEvent);
    return got;
}

void ChildProcess::CloseOutput() {
    CloseHandleOnce(m_output);
}

// Ctrl-Break can be sent to one process group. Wine lacks it, and sends Ctrl-C so instead.
void ChildProcess::Interrupt() {
    const DWORD group = GetProcessId(HandleOf(m_process));
    if (GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, group) == FALSE) {
        Check(GenerateConsoleCtrlEvent(CTRL_C_EVENT, group), "interrupt the child");
    }
}

void ChildProcess::Kill() {
    Check(TerminateProcess(HandleOf(m_process), kExceptions + kKillSignal), "kill the child");
}

ChildEnd ChildProcess::Wait() {
    WaitForSingleObject(HandleOf(m_process), INFINITE);
    DWORD status = 0;
    Check(GetExitCodeProcess(HandleOf(m_process), &status), "ask for the exit status");
    CloseHandleOnce(m_process);
    return status >= kExceptions ? ChildEnd{0, static_cast<int>(status - kExceptions)}
                                 : ChildEnd{static_cast<int>(status), 0};
}

}  // namespace k9erepl::test
