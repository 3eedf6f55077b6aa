// Tests that die, each in its way; run by death_notice_test.cpp.
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace {

// The sanitizer of undefined behaviour knows the null pointer, and nothing of this one.
void WriteToNoMemory() {
    int* volatile nowhere = reinterpret_cast<int*>(64);
    *nowhere = 1;
}

class DyingAfterwards : public testing::Test {
  public:
    static void TearDownTestSuite() { std::abort(); }
};

}  // namespace

TEST(Dying, NotAtAll) {}
TEST(Dying, OfAnAbort) {
    std::abort();
}
TEST(Dying, OfAnException) {
    std::thread([] { throw std::runtime_error("nobody catches this"); }).join();
}
TEST(Dying, OfAWildWrite) {
    WriteToNoMemory();
}
TEST(Dying, OfAWildWriteOnAThread) {
    std::thread(WriteToNoMemory).join();
}
TEST_F(DyingAfterwards, OfAnAbort) {}
