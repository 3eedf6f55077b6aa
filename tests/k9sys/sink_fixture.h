// A sink of the tests' own: what the stand-in hands to it, level by level. Used by the tests of
// levels, flags and sinks.
#ifndef K9EREPL_TESTS_K9SYS_SINK_FIXTURE_H
#define K9EREPL_TESTS_K9SYS_SINK_FIXTURE_H

#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <string>
#include <vector>

namespace k9erepl::test {

// Begins with a sink and all levels off; ends with none and all off.
class SinkFixture : public ::testing::Test {
  protected:
    SinkFixture() {
        K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
        K9SysSetLogSink(&SinkFixture::Collect, this);
    }
    ~SinkFixture() override {
        K9SysSetLogSink(nullptr, nullptr);
        K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    }

    // "level module text code" of each message so far.
    std::vector<std::string> m_received;

  private:
    static void K9SYS_CALL Collect(K9SysLogLevel level, const char* module, const char* text,
                                   std::uint32_t code, void* context) {
        static_cast<SinkFixture*>(context)->m_received.push_back(
            std::to_string(level) + " " + module + " " + text + " " + std::to_string(code));
    }
};

using Lines = std::vector<std::string>;

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_SINK_FIXTURE_H
