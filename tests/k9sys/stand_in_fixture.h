// A sink of the tests' own: what the stand-in hands to it; and registered modules. Used by the
// tests of the stand-in's services.
#ifndef K9EREPL_TESTS_K9SYS_STAND_IN_FIXTURE_H
#define K9EREPL_TESTS_K9SYS_STAND_IN_FIXTURE_H

#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <string>
#include <vector>

namespace k9erepl::test {

using Lines = std::vector<std::string>;

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

    Lines m_received;  // "level module text code" of each message so far

  private:
    static void K9SYS_CALL Collect(K9SysLogLevel level, const char* module, const char* text,
                                   std::uint32_t code, void* context) {
        static_cast<SinkFixture*>(context)->m_received.push_back(
            std::to_string(level) + " " + module + " " + text + " " + std::to_string(code));
    }
};

// Registers this test program, or what `module` stands for, with the statistics service as long as
// it lives.
struct Registration {
    explicit Registration(void* module = nullptr)
        : result(K9MQStatSetBinaryModuleVersion(module, "product", "1.2", &id, name, sizeof name,
                                                path, sizeof path)) {}
    ~Registration() { K9MQStatUnregisterModule(id); }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;

    std::uint32_t id = 0;
    char name[255] = "";
    char path[260] = "";
    std::uint32_t result;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_K9SYS_STAND_IN_FIXTURE_H
