// A terminal that a test holds the other end of: what a child prints on it, the test reads, and
// what the test types, the child reads. Used by the tests of questions and of the progress line.
#ifndef K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H
#define K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>

namespace k9erepl::test {

// Echoes nothing and changes no byte. Throws std::system_error when the system refuses.
class PseudoTerminal {
  public:
    PseudoTerminal()
        : m_master(Checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "open a terminal")) {
        Checked(grantpt(m_master), "grant the terminal");
        Checked(unlockpt(m_master), "unlock the terminal");
        char name[100] = {};
        Checked(-ptsname_r(m_master, name, sizeof name), "name the terminal");
        m_name = name;
        m_slave = Checked(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC), name);
        termios settings = {};
        Checked(tcgetattr(m_slave, &settings), "ask the terminal's settings");
        settings.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        settings.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        Checked(tcsetattr(m_slave, TCSANOW, &settings), "set the terminal");
    }
    ~PseudoTerminal() {
        if (m_slave >= 0) {
            close(m_slave);
        }
        close(m_master);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    // The path under which a child opens it.
    const std::string& Name() const { return m_name; }

    // Reads, at most a minute, until `text` was printed; false when it never was.
    bool WaitFor(std::string_view text) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        while (m_printed.find(text) == std::string::npos) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            ReadMore(1000);
        }
        return true;
    }
    // Everything that was ever printed; the last call. REQUIRES: every child has ended.
    std::string ReadRest() {
        close(m_slave);  // without a slave end the master reads what is left and then fails
        m_slave = -1;
        while (ReadMore(-1)) {
        }
        return m_printed;
    }
    void Type(std::string_view text) {
        Checked(static_cast<int>(write(m_master, text.data(), text.size())), "type");
    }

    // As Ctrl-S and Ctrl-Q do: in between, who prints waits.
    void HoldOutput() {
        Checked(tcflow(m_slave, TCOOFF), "hold the output");  // NOLINT(concurrency-mt-unsafe)
    }
    void ReleaseOutput() {
        Checked(tcflow(m_slave, TCOON), "release the output");  // NOLINT(concurrency-mt-unsafe)
    }

  private:
    static int Checked(int result, const char* what) {
        if (result < 0) {
            throw std::system_error(errno, std::generic_category(), what);
        }
        return result;
    }
    bool ReadMore(int timeoutMs) {
        pollfd wait = {m_master, POLLIN, 0};
        if (poll(&wait, 1, timeoutMs) <= 0) {
            return false;
        }
        char bytes[4096];
        const ssize_t got = read(m_master, bytes, sizeof bytes);
        m_printed.append(bytes, got > 0 ? static_cast<std::size_t>(got) : 0);
        return got > 0;
    }

    int m_master = -1;
    int m_slave = -1;  // keeps the terminal while no child has it open
    std::string m_name;
    std::string m_printed;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H
