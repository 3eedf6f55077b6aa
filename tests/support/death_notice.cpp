// Keeps the running test's name where a signal handler can read it.
#include "support/death_notice.h"

#include <gtest/gtest.h>

#include <atomic>

namespace k9erepl::test {
namespace {

// "Suite.Name"; empty before the first test. Written between tests only.
char g_test[256] = "";
std::atomic<bool> g_running{false};
std::atomic<bool> g_told{false};

// Appends as much of `text` as leaves room for the closing zero.
void Append(char* buffer, std::size_t bufferSize, std::size_t& size, const char* text) {
    while (*text != '\0' && size + 1 < bufferSize) {
        buffer[size++] = *text++;
    }
    buffer[size] = '\0';
}

class RunningTest : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo& test) override {
        std::size_t size = 0;
        for (const char* part : {test.test_suite_name(), ".", test.name()}) {
            Append(g_test, sizeof g_test, size, part);
        }
        g_running = true;
    }
    void OnTestEnd(const testing::TestInfo&) override { g_running = false; }
};

}  // namespace

DeathNotice::DeathNotice() {
    m_text[0] = '\0';
    Add("test program died; running test: ");
    if (g_running) {
        Add(g_test);
    } else if (g_test[0] != '\0') {
        Add("none, after ");
        Add(g_test);
    } else {
        Add("none");
    }
    Add("; ");
}

void DeathNotice::Add(const char* text) {
    Append(m_text, sizeof m_text, m_size, text);
}

void DeathNotice::AddHex(u64 number) {
    char digits[sizeof number * 2 + 1] = {};
    std::size_t first = sizeof digits - 1;
    do {
        digits[--first] = "0123456789abcdef"[number % 16];
        number /= 16;
    } while (number != 0);
    Add("0x");
    Add(digits + first);
}

bool DeathNotice::IsFirst() {
    return !g_told.exchange(true);
}

void NameTheTestThatDies() {
    testing::UnitTest::GetInstance()->listeners().Append(new RunningTest);
    WatchForDeath();
}

}  // namespace k9erepl::test
