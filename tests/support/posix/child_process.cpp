// Starts children with fork and exec; between the two only calls that are safe there.
#include "support/child_process.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace k9erepl::test {

namespace {

int Checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

template <typename Descriptor>
void CloseDescriptor(Descriptor& descriptor) {
    if (descriptor >= 0) {
        close(static_cast<int>(std::exchange(descriptor, -1)));
    }
}

// The child's end of a standard stream and, for a pipe, the test's end.
struct Stream {
    int child = -1;
    int test = -1;
};

// A file that the child reads or writes, or a pipe if there is no path.
Stream Open(const std::string& path, bool childReads) {
    if (!path.empty()) {
        const int flags = childReads ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC;
        return {Checked(open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY, 0666), path.c_str()), -1};
    }
    int ends[2];
    Checked(pipe2(ends, O_CLOEXEC), "pipe");
    return childReads ? Stream{ends[0], ends[1]} : Stream{ends[1], ends[0]};
}

// What the child does before exec with its ends of the streams.
void SetUp(const ChildOptions& options, int input, int output, int error) {
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    if (error >= 0) {
        dup2(error, STDERR_FILENO);
    }
    if (options.fileSizeMax != 0) {
        const rlimit limit = {options.fileSizeMax, options.fileSizeMax};
        setrlimit(RLIMIT_FSIZE, &limit);
        (void)signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails with EFBIG
    }
    if (options.obeysPermissions) {
        prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE);  // who may not drop it has not got it
    }
}

// The test's environment with the changes that ChildOptions::environment asks for.
std::vector<std::string> ChangedEnvironment(const std::vector<std::string>& changes) {
    std::vector<std::string> items;
    for (char** item = environ; *item != nullptr; ++item) {
        items.emplace_back(*item);
    }
    for (const std::string& change : changes) {
        const std::string start = change.substr(0, change.find('=')) + "=";
        std::erase_if(items, [&](const std::string& item) { return item.starts_with(start); });
        if (change.find('=') != std::string::npos) {
            items.push_back(change);
        }
    }
    return items;
}

// As exec takes them; valid as long as `texts`.
std::vector<char*> Pointers(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

pid_t Start(const ChildOptions& options, int input, int output, int error) {
    const std::vector<char*> arguments = Pointers(options.arguments);
    const std::vector<std::string> items = ChangedEnvironment(options.environment);
    const std::vector<char*> environment = Pointers(items);
    const pid_t process = Checked(fork(), "fork");
    if (process == 0) {
        SetUp(options, input, output, error);
        execve(arguments[0], arguments.data(), environment.data());
        _exit(127);
    }
    return process;
}

}  // namespace

ChildProcess::ChildProcess(const ChildOptions& options) {
    Stream input = Open(options.inputPath, true);
    Stream output = Open(options.outputPath, false);
    Stream error;
    if (!options.errorPath.empty()) {
        error = Open(options.errorPath, false);
    }
    m_process = Start(options, input.child, output.child, error.child);
    m_input = input.test;
    m_output = output.test;
    CloseDescriptor(input.child);
    CloseDescriptor(output.child);
    CloseDescriptor(error.child);
}

ChildProcess::~ChildProcess() {
    CloseInput();
    CloseOutput();
    if (m_process > 0) {
        Kill();
        waitpid(static_cast<pid_t>(m_process), nullptr, 0);
    }
}

void ChildProcess::Write(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(static_cast<int>(m_input), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        Checked(static_cast<int>(written), "write to the child");
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void ChildProcess::CloseInput() {
    CloseDescriptor(m_input);
}

std::size_t ChildProcess::Read(void* buffer, std::size_t size, int timeoutMs) {
    const int output = static_cast<int>(m_output);
    pollfd wait = {output, POLLIN, 0};
    if (poll(&wait, 1, timeoutMs) <= 0) {
        return 0;
    }
    const ssize_t got = read(output, buffer, size);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

void ChildProcess::CloseOutput() {
    CloseDescriptor(m_output);
}

void ChildProcess::Interrupt() {
    Signal(SIGINT);
}

void ChildProcess::Kill() {
    static_assert(kKillSignal == SIGKILL);
    Signal(SIGKILL);
}

void ChildProcess::Signal(int signal) {
    Checked(kill(static_cast<pid_t>(m_process), signal), "kill");
}

ChildEnd ChildProcess::Wait() {
    int status = 0;
    while (waitpid(static_cast<pid_t>(m_process), &status, 0) < 0) {
        if (errno != EINTR) {
            Checked(-1, "waitpid");
        }
    }
    m_process = -1;
    return WIFSIGNALED(status) ? ChildEnd{0, WTERMSIG(status)} : ChildEnd{WEXITSTATUS(status), 0};
}

}  // namespace k9erepl::test
