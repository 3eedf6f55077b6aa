// What a sink receives, and when.
#include "k9sys/sink_fixture.h"

namespace k9erepl::test {

namespace {

class LogSink : public SinkFixture {
  protected:
    LogSink() { K9SysSetLogLevel(nullptr, K9SYS_LOG_INFO); }
};

void K9SYS_CALL CountMessage(K9SysLogLevel, const char*, const char*, std::uint32_t,
                             void* context) {
    ++*static_cast<int*>(context);
}

void K9SYS_CALL LogOnceMore(K9SysLogLevel, const char* module, const char*, std::uint32_t,
                            void* context) {
    ++*static_cast<int*>(context);
    K9LogErrorEx(module, "from inside the sink");
}

}  // namespace

TEST_F(LogSink, ReceivesLevelModuleTextAndCode) {
    K9LogInfoEx("a", "info %d", 1);
    K9LogWarningEx("b", "warning %s", "text");
    K9LogErrorEx("c", "error %I64d", -3LL);
    K9LogErrorWithCodeEx(0x8011, "d", "error %P", std::size_t{4});
    EXPECT_EQ(m_received,
              (Lines{"3 a info 1 0", "2 b warning text 0", "1 c error -3 0", "1 d error 4 32785"}));
}

TEST_F(LogSink, ReceivesControlCharactersAsTheyAre) {
    K9LogInfoEx("a", "two\nlines");
    EXPECT_EQ(m_received, (Lines{"3 a two\nlines 0"}));
}

TEST_F(LogSink, ReceivesLongMessagesWhole) {
    for (const std::size_t size : {1022U, 1023U, 1024U, 100'000U}) {
        const std::string text(size, 'x');
        m_received.clear();
        K9LogInfoEx("a", "%s", text.c_str());
        EXPECT_EQ(m_received, (Lines{"3 a " + text + " 0"}));
    }
}

TEST_F(LogSink, AMessageOfMoreThanAMegabyteIsCut) {
    const std::string text(2'000'000, 'x');
    K9LogInfoEx("a", "%s", text.c_str());
    EXPECT_EQ(m_received, (Lines{"3 a " + std::string(1024 * 1024 - 1, 'x') + " 0"}));
}

TEST_F(LogSink, ANullModuleOrFormatIsEmpty) {
    K9LogInfoEx(nullptr, "text");
    K9LogInfoEx("a", nullptr);
    EXPECT_EQ(m_received, (Lines{"3  text 0", "3 a  0"}));
}

TEST_F(LogSink, ANewSinkReplacesTheOld) {
    int count = 0;
    K9SysSetLogSink(&CountMessage, &count);
    K9LogInfoEx("a", "x");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(m_received, Lines());
}

TEST_F(LogSink, WhatASinkLogsIsDropped) {
    int count = 0;
    K9SysSetLogSink(&LogOnceMore, &count);
    K9LogInfoEx("a", "x");
    K9LogInfoEx("a", "y");
    EXPECT_EQ(count, 2);
}

}  // namespace k9erepl::test
