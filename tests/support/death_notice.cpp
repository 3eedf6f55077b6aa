// The entry of every test program: keeps the running test where a signal handler can read it.
#include "support/death_notice.h"

#include <gtest/gtest.h>

#include <atomic>

namespace k9erepl::test {
namespace {

std::atomic<const testing::TestInfo*> g_test{nullptr};  // the last one that was started
std::atomic<bool> g_running{false};
std::atomic<bool> g_told{false};
char g_line[1024];  // the first one who tells builds it
std::size_t g_size = 0;

class RunningTest : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo& test) override {
        g_test = &test;
        g_running = true;
    }
    void OnTestEnd(const testing::TestInfo&) override { g_running = false; }
};

}  // namespace

bool TellDeath() {
    if (g_told.exchange(true)) {
        return false;
    }
    Tell("test program died; running test: ");
    const testing::TestInfo* const test = g_test;
    if (!g_running) {
        Tell(test == nullptr ? "none" : "none, after ");
    }
    if (test != nullptr) {
        Tell(test->test_suite_name());
        Tell(".");
        Tell(test->name());
    }
    Tell("; ");
    return true;
}

void Tell(const char* text) {
    while (*text != '\0' && g_size + 1 < sizeof g_line) {
        g_line[g_size++] = *text++;
    }
}

void TellEnd() {
    g_line[g_size++] = '\n';
    WriteToStandardError(g_line, g_size);
}

void TellHex(u64 number) {
    char digits[sizeof number * 2 + 1] = {};
    std::size_t first = sizeof digits - 1;
    do {
        digits[--first] = "0123456789abcdef"[number % 16];
        number /= 16;
    } while (number != 0);
    Tell("0x");
    Tell(digits + first);
}

}  // namespace k9erepl::test

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new k9erepl::test::RunningTest);
    k9erepl::test::WatchForDeath();
    return RUN_ALL_TESTS();
}
