// Names the test that was running when a test program dies, on standard error: a crash that comes
// once in many runs must not be anonymous. Called by main (test_main.cpp).
#ifndef K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H
#define K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H

#include <cstddef>

#include "platform/int_types.h"

namespace k9erepl::test {

// The line that is written: built without memory, locks or the C library's streams, so that a
// signal handler may do it. It begins with the running test; what does not fit is cut off.
class DeathNotice {
  public:
    DeathNotice();
    void Add(const char* text);
    void AddHex(u64 number);  // as "0x1f"

    const char* Text() const { return m_text; }
    std::size_t Size() const { return m_size; }

    // True for the first caller in this process, so that a program which dies in two threads at
    // once, or dies while it tells of it, writes one line.
    static bool IsFirst();

  private:
    char m_text[1024];
    std::size_t m_size = 0;
};

// From now on the notice names the running test, and each way to die writes it. After
// InitGoogleTest, once.
void NameTheTestThatDies();

// The system's part of it, in posix/ and windows/: writes a notice at each deadly signal or
// exception, and lets the program die as it would have without it.
void WatchForDeath();

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_DEATH_NOTICE_H
