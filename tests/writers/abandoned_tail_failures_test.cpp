// The clearing of abandoned bytes when the system fails one of its steps: nothing is written, the
// bytes stay remembered, and the next write tries again.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

constexpr SystemErrorKind kKind = SystemErrorKind::kInputOutput;

// The `nth` call of its kind in the clearing.
struct Step {
    const char* name;
    SystemCall call;
    u32 nth;
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

class AbandonedTailFailures : public WriterTest, public ::testing::WithParamInterface<Step> {
  protected:
    AbandonedTailFailures() { m_state.forceFlush = true; }

    void LeaveGhost() {
        ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
        ASSERT_EQ(AppendRecord(1), RC_OK);
        ASSERT_EQ(CommitRecord(2, 2000), RC_OK);
        ASSERT_EQ(Writer().Rollback(), RC_OK);
    }

    std::string Text() const { return "Cannot clear abandoned data;offset 1056," + SysErr(kKind); }
};

}  // namespace

TEST_P(AbandonedTailFailures, IsReportedAndNothingIsWritten) {
    LeaveGhost();
    const u32 writes = CallCount(SystemCall::kWrite);
    Fail(GetParam().call, GetParam().nth, kKind);
    EXPECT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(Text()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(Writer().WritePos(), kStart);
    EXPECT_EQ(CallCount(SystemCall::kWrite), writes);
}

TEST_P(AbandonedTailFailures, IsMadeGoodByTheNextWrite) {
    LeaveGhost();
    Fail(GetParam().call, GetParam().nth, kKind);
    ASSERT_EQ(AppendRecord(1), RC_SYSTEM_ERROR);
    ASSERT_EQ(AppendRecord(1), RC_OK);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 R2");
    ASSERT_EQ(AppendRun({}, 2, 3000), RC_OK);
    EXPECT_EQ(Items(m_path), "C0 R1 R2 C2");
}

INSTANTIATE_TEST_SUITE_P(Steps, AbandonedTailFailures,
                         ::testing::Values(Step{"Size", SystemCall::kFileSize, 1},
                                           Step{"Cut", SystemCall::kSetEnd, 1},
                                           Step{"Extend", SystemCall::kSetEnd, 2},
                                           Step{"Flush", SystemCall::kFlush, 1}),
                         [](const auto& step) { return std::string(step.param.name); });

}  // namespace k9erepl::test
