// The clearing of abandoned bytes when the system fails one of its steps: nothing is written, the
// bytes stay remembered, and the next write tries again.
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "writers/writer_fixture.h"

namespace k9erepl::test {

namespace {

constexpr SystemErrorKind kKind = SystemErrorKind::kInputOutput;

// The `nth` call of its kind in the clearing of a tail that begins at `position`.
struct Step {
    const char* name;
    i64 position;
    SystemCall call;
    u32 nth;
    const char* items;  // what the file holds when this step has failed
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

class AbandonedTailFailures : public WriterTest, public ::testing::WithParamInterface<Step> {
  protected:
    AbandonedTailFailures() { m_state.forceFlush = true; }

    // Records 2 and 3 and their commit block, rolled back, at the step's position.
    void LeaveGhost() {
        if (GetParam().position != kStart) {
            ASSERT_EQ(CommitRecord(1, 2000), RC_OK);
        }
        ASSERT_EQ(Writer().WritePos(), GetParam().position);
        ASSERT_EQ(Writer().BeginTransaction(), RC_OK);
        ASSERT_EQ(AppendRecord(2), RC_OK);
        ASSERT_EQ(CommitRecord(3, 3000), RC_OK);
        ASSERT_EQ(Writer().Rollback(), RC_OK);
    }

    std::string Text() const {
        return "Cannot clear abandoned data;offset " + std::to_string(GetParam().position) + "," +
               SysErr(kKind);
    }
    std::string Before() const { return GetParam().position == kStart ? "C0" : "C0 R1 C1"; }
};

}  // namespace

TEST_P(AbandonedTailFailures, IsReportedAndNothingIsWritten) {
    LeaveGhost();
    Fail(GetParam().call, GetParam().nth, kKind);
    EXPECT_EQ(AppendRecord(2), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CodeOf(Text()), RC_SYSTEM_ERROR) << m_log;
    EXPECT_EQ(Writer().WritePos(), GetParam().position);
    EXPECT_EQ(Items(m_path), GetParam().items);
}

TEST_P(AbandonedTailFailures, LeavesAFileThatIsLongEnoughToLoad) {
    LeaveGhost();
    Fail(GetParam().call, GetParam().nth, kKind);
    ASSERT_EQ(AppendRecord(2), RC_SYSTEM_ERROR);
    EXPECT_GE(FileLength(), i64{kNewFileSize});
}

TEST_P(AbandonedTailFailures, IsMadeGoodByTheNextWrite) {
    LeaveGhost();
    Fail(GetParam().call, GetParam().nth, kKind);
    ASSERT_EQ(AppendRecord(2), RC_SYSTEM_ERROR);
    ASSERT_EQ(AppendRecord(2), RC_OK);
    ASSERT_EQ(AppendRecord(3), RC_OK);
    EXPECT_EQ(Items(m_path), Before() + " R2 R3");
    ASSERT_EQ(AppendRun({}, 3, 4000), RC_OK);
    EXPECT_EQ(Items(m_path), Before() + " R2 R3 C3");
}

constexpr i64 kFirst = kFirstItemOffset;
constexpr i64 kLater = kFirstItemOffset + 34 + 32;

INSTANTIATE_TEST_SUITE_P(
    Steps, AbandonedTailFailures,
    ::testing::Values(Step{"SizeOfAFirstRun", kFirst, SystemCall::kFileSize, 1, "C0 R2 R3 C3"},
                      Step{"SeekToAFirstRun", kFirst, SystemCall::kSeek, 1, "C0 R2 R3 C3"},
                      Step{"ZerosOverAFirstRun", kFirst, SystemCall::kWrite, 1, "C0 R2 R3 C3"},
                      Step{"CutOfAFirstRun", kFirst, SystemCall::kSetEnd, 1, "C0"},
                      Step{"ExtensionOfAFirstRun", kFirst, SystemCall::kSetEnd, 2, "C0"},
                      Step{"FlushOfAFirstRun", kFirst, SystemCall::kFlush, 1, "C0"},
                      Step{"SizeOfALaterRun", kLater, SystemCall::kFileSize, 1,
                           "C0 R1 C1 R2 R3 C3"},
                      Step{"CutOfALaterRun", kLater, SystemCall::kSetEnd, 1, "C0 R1 C1 R2 R3 C3"},
                      Step{"ExtensionOfALaterRun", kLater, SystemCall::kSetEnd, 2, "C0 R1 C1"},
                      Step{"FlushOfALaterRun", kLater, SystemCall::kFlush, 1, "C0 R1 C1"}),
    [](const auto& step) { return std::string(step.param.name); });

}  // namespace k9erepl::test
