// The master end of a pseudo terminal.
#include "tools/posix/pseudo_terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <system_error>

namespace k9erepl::test {

namespace {

int Checked(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

}  // namespace

PseudoTerminal::PseudoTerminal()
    : m_master(Checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "open a terminal")) {
    Checked(grantpt(m_master), "grant the terminal");
    Checked(unlockpt(m_master), "unlock the terminal");
    char name[100] = {};
    if (ptsname_r(m_master, name, sizeof name) != 0) {
        Checked(-1, "name the terminal");
    }
    m_name = name;
    m_slave = Checked(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), name);
    termios settings = {};
    Checked(tcgetattr(m_slave, &settings), "ask the terminal's settings");
    settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    Checked(tcsetattr(m_slave, TCSANOW, &settings), "set the terminal");
}

PseudoTerminal::~PseudoTerminal() {
    if (m_slave >= 0) {
        close(m_slave);
    }
    close(m_master);
}

bool PseudoTerminal::WaitFor(std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (m_printed.find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        ReadMore(1000);
    }
    return true;
}

// Without a slave end the master reads what is left and then fails.
std::string PseudoTerminal::ReadRest() {
    close(m_slave);
    m_slave = -1;
    while (ReadMore(-1)) {
    }
    return m_printed;
}

void PseudoTerminal::Type(std::string_view text) {
    Checked(static_cast<int>(write(m_master, text.data(), text.size())), "type");
}

void PseudoTerminal::HoldOutput() {
    Checked(tcflow(m_slave, TCOOFF), "hold the output");  // NOLINT(concurrency-mt-unsafe)
}

void PseudoTerminal::ReleaseOutput() {
    Checked(tcflow(m_slave, TCOON), "release the output");  // NOLINT(concurrency-mt-unsafe)
}

bool PseudoTerminal::ReadMore(int timeoutMs) {
    pollfd wait = {m_master, POLLIN, 0};
    if (poll(&wait, 1, timeoutMs) <= 0) {
        return false;
    }
    char bytes[4096];
    const ssize_t got = read(m_master, bytes, sizeof bytes);
    m_printed.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
    return got > 0;
}

}  // namespace k9erepl::test
