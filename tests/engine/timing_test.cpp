// What the storage's own times say when a callback of a flush clears or truncates: the outermost
// flush is timed, and nothing is reported that was not measured.
#include <gtest/gtest.h>

#include "engine/flush_fixture.h"
#include "support/fault_injection.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr i64 kTicksPerMicrosecond = 10;

// OnFlush takes 50 microseconds and does what a test says, in its first call only.
class NestedFlushTimes : public ::testing::Test {
  protected:
    void InOnFlush(std::function<void()> action) {
        m_flushed.Does([this, action = std::move(action)](i64) mutable {
            AdvancePerformanceCounter(50 * kTicksPerMicrosecond);
            if (const auto once = std::exchange(action, nullptr)) {
                once();
            }
        });
        m_flushed.SetAsOnFlush(m_storage);
    }
    // The times that the storage reports when it closes.
    std::string ReportAtClose() {
        m_log.Clear();
        m_storage.Close();
        for (const LoggedMessage& message : m_log.Messages()) {
            if (message.module == "***TP***" && message.text.starts_with("Flush: ")) {
                return message.text;
            }
        }
        return "nothing";
    }
    void ExpectNoTimingError() const {
        EXPECT_EQ(m_log.CountContaining("has already started"), 0U) << m_log;
    }

    const ScopedSystemCalls m_systemCalls;
    const bool m_counterStands = (SetPerformanceFrequency(kTicksPerMicrosecond * 1'000'000),
                                  SetPerformanceCounter(1000), true);
    LogCapture m_log{{"***TP***"}};
    Notified m_flushed;
    TestStorage m_storage{kFlushAlways};
};

}  // namespace

TEST_F(NestedFlushTimes, OfAClearInOnFlushAreThoseOfTheOuterFlush) {
    InOnFlush([this] { EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK); });
    m_storage.InsertCommitted({"one", "two", "three"});
    ExpectNoTimingError();
    EXPECT_TRUE(
        ReportAtClose().starts_with("Flush: 50.00 mcs (2 x 25.00 mcs)  "
                                    "OnFlushCb: 50.00 mcs  "))
        << m_log;
}

TEST_F(NestedFlushTimes, OfRecordsThatAClearInOnFlushWritesAreNotCountedTwice) {
    InOnFlush([this] {
        ASSERT_EQ(m_storage.Insert("four"), RC_OK);
        EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK);
    });
    m_storage.InsertCommitted({"one", "two", "three"});
    ExpectNoTimingError();
    EXPECT_TRUE(
        ReportAtClose().starts_with("Flush: 100.00 mcs (2 x 50.00 mcs)  "
                                    "OnFlushCb: 100.00 mcs  "))
        << m_log;
}

TEST_F(NestedFlushTimes, ATruncationInOnFlushEndsWhatIsMeasured) {
    InOnFlush([this] { EXPECT_EQ(m_storage.Truncate(), RC_OK); });
    m_storage.InsertCommitted({"one"});
    ExpectNoTimingError();
    EXPECT_TRUE(ReportAtClose().starts_with("Flush: 0.00 mcs  OnFlushCb: 0.00 mcs  ")) << m_log;
}

TEST_F(NestedFlushTimes, AClearAfterATruncationInOnFlushIsNotTimed) {
    InOnFlush([this] {
        EXPECT_EQ(m_storage.Truncate(), RC_OK);
        m_storage.InsertCommitted({"one", "two"});
        EXPECT_EQ(m_storage.Clear(2, K9EREPL_CLEAR_LOGICAL), RC_OK);
    });
    m_storage.InsertCommitted({"gone"});
    ExpectNoTimingError();
    EXPECT_TRUE(ReportAtClose().starts_with("Flush: 0.00 mcs  OnFlushCb: 0.00 mcs  ")) << m_log;
}

}  // namespace k9erepl::test
