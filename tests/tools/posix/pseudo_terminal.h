// A terminal that a test holds the other end of: what a child prints on it, the test reads, and
// what the test types, the child reads. Used by the tests of questions and of the progress line.
#ifndef K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H
#define K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H

#include <string>
#include <string_view>

namespace k9erepl::test {

// Echoes nothing and changes no byte. Throws std::system_error when the system refuses.
class PseudoTerminal {
  public:
    PseudoTerminal();
    ~PseudoTerminal();
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    // The path under which a child opens it.
    const std::string& Name() const { return m_name; }

    // Reads, at most a minute, until `text` was printed; false when it never was.
    bool WaitFor(std::string_view text);
    // Everything that was ever printed; the last call. REQUIRES: every child has ended.
    std::string ReadRest();
    void Type(std::string_view text);

    // As Ctrl-S and Ctrl-Q do: in between, who prints waits.
    void HoldOutput();
    void ReleaseOutput();

  private:
    bool ReadMore(int timeoutMs);

    int m_master = -1;
    int m_slave = -1;  // keeps the terminal while no child has it open
    std::string m_name;
    std::string m_printed;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_TOOLS_POSIX_PSEUDO_TERMINAL_H
