// The squeeze when the system fails one of its calls, each in turn: the file at the path is whole,
// the temporary file is gone, and it is known whether the storage is still open.
#include <algorithm>
#include <ostream>

#include "solid/squeeze_fixture.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

// What the storage's name leads to after a failure.
enum class Left {
    kOld,     // the file as it was
    kRaised,  // with the clear revision's commit block
    kNew,
};

// The `nth` call of its kind in a squeeze with a backup. In `message`, {P} stands for the path, and
// {E} for the number of the system's error.
struct Step {
    const char* name;
    SystemCall call;
    u32 nth;
    const char* message;
    Left left;
    bool open;  // whether the storage is, afterwards
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

using enum SystemCall;

// In the order in which they happen.
constexpr Step kSteps[] = {
    {"FlushOfTheOldFile", kFlush, 1, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"Offset", kTell, 1, "Cannot get file offset;sys-err {E}", Left::kRaised, true},
    {"SeekToTheHeader", kSeek, 1, "Cannot seek to offset 0;sys-err {E}", Left::kRaised, true},
    {"ReadOfTheHeader", kRead, 1, "Failed to read file header; sys-err {E}", Left::kRaised, true},
    {"SeekBack", kSeek, 2, "Cannot seek to offset 1291;sys-err {E}", Left::kRaised, true},
    {"SeekToTheCommitBlock", kSeek, 3, "Cannot seek to read commit block;offset 1199, sys-err {E}",
     Left::kRaised, true},
    {"ReadOfTheCommitBlock", kRead, 2, "Failed to read block;sys-err {E},offset 1199",
     Left::kRaised, true},
    {"Creation", kOpen, 1, "Cannot create temporary file '{P}.temporary';sys-err {E}",
     Left::kRaised, true},
    {"Owner", kTakeOwnerAndMode, 1, "Cannot create temporary file '{P}.temporary';sys-err {E}",
     Left::kRaised, true},
    {"SeekToTheNewStart", kSeek, 4, "Cannot seek to offset 0;sys-err {E}", Left::kRaised, true},
    {"WriteOfTheNewStart", kWrite, 2, "Cannot write file header to file;sys-err {E}", Left::kRaised,
     true},
    {"SeekToTheNewItems", kSeek, 5, "Cannot seek to offset 1056;sys-err {E}", Left::kRaised, true},
    {"FlushOfTheNewStart", kFlush, 2, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"SeekToTheItems", kSeek, 6, "Cannot seek to read file;offset 1171, sys-err {E}", Left::kRaised,
     true},
    {"ReadOfTheItems", kRead, 3, "Failed to read block;sys-err {E},offset 1171", Left::kRaised,
     true},
    {"WriteOfTheItems", kWrite, 3, "Failed to write block;sys-err {E},offset 1171", Left::kRaised,
     true},
    {"FlushOfTheItems", kFlush, 3, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"Cut", kSetEnd, 1, "Cannot truncate file: '{P}'; sys-err: {E}", Left::kRaised, false},
    {"FlushOfTheCut", kFlush, 4, "Cannot flush file;sys-err {E}", Left::kOld, false},
    {"Link", kLink, 1, "Cannot create backup file; sys-err: {E}; of file: '{P}'", Left::kOld,
     false},
    {"FlushOfTheBackupsName", kFlushDirectory, 1,
     "Cannot flush directory of file '{P}.backup';sys-err {E}", Left::kOld, false},
    {"Rename", kRename, 1, "Cannot rename file; sys-err: {E}; tempfile: '{P}.temporary'",
     Left::kOld, false},
    {"FlushOfTheNewName", kFlushDirectory, 2, "Cannot flush directory of file '{P}';sys-err {E}",
     Left::kNew, false},
    {"Opening", kOpen, 2, "Failed to create file '{P}';sys-err {E}", Left::kNew, false},
    {"ReadOfTheNewHeader", kRead, 4, "Failed to read file header;file path {P},sys-err {E}",
     Left::kNew, false},
    {"Size", kFileSize, 1, "Cannot get file size;sys-err {E},file path '{P}'", Left::kNew, false},
    {"OpeningOfTheWriter", kOpen, 3, "Failed to create file '{P}';sys-err {E}", Left::kNew, false},
    {"SeekOfTheWriter", kSeek, 7, "Cannot seek to write pos;offset 1208, sys-err {E}", Left::kNew,
     false},
};

class SqueezeFailure : public SqueezeTest {
  protected:
    std::string Filled(std::string text) const {
        const auto fill = [&](const std::string& mark, const std::string& value) {
            if (const std::size_t at = text.find(mark); at != std::string::npos) {
                text.replace(at, mark.size(), value);
            }
        };
        fill("{P}", Path());
        fill("{E}", std::to_string(SystemErrorOf(SystemErrorKind::kInputOutput)));
        return text;
    }
    static FileBytes BytesLeft(Left left) {
        switch (left) {
            case Left::kOld:
                return OldBytes();
            case Left::kRaised:
                return RaisedBytes();
            case Left::kNew:
                break;
        }
        return NewBytes();
    }
    Texts Errors() const { return m_log.Texts(K9SYS_LOG_ERROR); }
    // Nothing but the storage file lies in the folder, and that is the old one.
    void ExpectOnlyTheOldFile(Left left) {
        EXPECT_EQ(WrittenBytes(), BytesLeft(left));
        EXPECT_FALSE(Exists(Temporary()));
        EXPECT_FALSE(Exists(Backup()));
    }

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

class SqueezeStep : public SqueezeFailure, public ::testing::WithParamInterface<Step> {
  protected:
    u32 FailedSqueeze() {
        Fail(GetParam().call, GetParam().nth);
        return Squeeze();
    }
};

TEST_P(SqueezeStep, IsReported) {
    EXPECT_EQ(FailedSqueeze(), RC_SYSTEM_ERROR);
    const std::string text = Filled(GetParam().message);
    EXPECT_EQ(Errors(), Texts{text});
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_shift, 12345);
}

TEST_P(SqueezeStep, LeavesWholeFiles) {
    const std::size_t descriptors = OpenDescriptors();
    EXPECT_EQ(FailedSqueeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(WrittenBytes(), BytesLeft(GetParam().left));
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_EQ(Exists(Backup()), GetParam().left == Left::kNew);
    EXPECT_EQ(m_solid.IsOpen(), GetParam().open);
    EXPECT_EQ(OpenDescriptors(), GetParam().open ? descriptors : descriptors - 2);
}

TEST_P(SqueezeStep, LosesNothing) {
    EXPECT_EQ(FailedSqueeze(), RC_SYSTEM_ERROR);
    ExpectNothingLost();
}

TEST_P(SqueezeStep, LeavesAnOpenStorageAtWorkAndAClosedOneClosed) {
    EXPECT_EQ(FailedSqueeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_solid.BeginTransaction(), GetParam().open ? RC_OK : RC_NO_WRITER);
    WriteRecord(6, "six");
    EXPECT_EQ(m_writeResult, GetParam().open ? RC_OK : RC_NO_WRITER);
    EXPECT_EQ(EnumerateRevs(1, 9), GetParam().open ? RC_OK : RC_NO_WRITER);
    EXPECT_EQ(m_items.size(), GetParam().open ? 6U : 0U);
}

TEST_P(SqueezeStep, AfterAReopeningTheSqueezeMayBeTriedAgain) {
    EXPECT_EQ(FailedSqueeze(), RC_SYSTEM_ERROR);
    if (GetParam().left == Left::kNew) {
        return;
    }
    Reopen();
    EXPECT_EQ(Scan(), RC_OK);
    EXPECT_EQ(Squeeze(), RC_OK) << m_log;
    EXPECT_EQ(Enumerated(1, 9), (Items{"record 4 at 1056: four", "record 5 at 1116: five"}));
    ExpectNothingLost();
}

INSTANTIATE_TEST_SUITE_P(Steps, SqueezeStep, ::testing::ValuesIn(kSteps),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_F(SqueezeFailure, IsTriedForEveryCallThatItMakes) {
    SKIP_WHEN_ASYNC("the number of calls");
    struct Kind {
        SystemCall call;
        u32 others;  // tried by a test of its own, or without effect
        u32 before;
    };
    Kind kinds[] = {{kWrite, 1, 0},
                    {kFlush, 0, 0},
                    {kTell, 0, 0},
                    {kSeek, 0, 0},
                    {kRead, 0, 0},
                    {kOpen, 0, 0},
                    {kTakeOwnerAndMode, 0, 0},
                    {kAlloc, 2, 0},
                    {kSetEnd, 0, 0},
                    {kLink, 0, 0},
                    {kRename, 0, 0},
                    {kFlushDirectory, 0, 0},
                    {kFileSize, 0, 0},
                    {kRemove, 1, 0},
                    {kClose, 3, 0},
                    {kMakeDirectory, 0, 0}};
    for (Kind& kind : kinds) {
        kind.before = CallCount(kind.call);
    }
    EXPECT_EQ(Squeeze(), RC_OK);
    for (const Kind& kind : kinds) {
        const auto steps = std::count_if(std::begin(kSteps), std::end(kSteps),
                                         [&](const Step& step) { return step.call == kind.call; });
        EXPECT_EQ(CallCount(kind.call) - kind.before, static_cast<u32>(steps) + kind.others)
            << static_cast<int>(kind.call);
    }
}

// --- The rest ----------------------------------------------------------------------------------

TEST_F(SqueezeFailure, OfTheClearRevisionsWrite) {
    SKIP_WHEN_ASYNC("a failed write is reported by the operation that made it");
    FailWrite(1);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), (Texts{"Cannot write data;" + SysErr(SystemErrorKind::kNoSpace),
                               "Failed to set clear rev to solid storage;rev 4"}));
    EXPECT_EQ(m_log.CodeOf("Failed to set clear rev to solid storage;rev 4"), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kOld);
    ExpectNothingLost();
}

TEST_F(SqueezeFailure, OfTheClearRevisionsForcedFlush) {
    SKIP_WHEN_ASYNC("a flush to the disk by each commit");
    OpenScanned(ThreeTransactions(), "force_flush=yes");
    FailFlush(1);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors().back(), "Failed to set clear rev to solid storage;rev 4");
    EXPECT_TRUE(m_solid.IsOpen());
    EXPECT_EQ(WriteTransaction(6, "six"), kOldEnd);
    EXPECT_EQ(ItemsOfFile().back(), "commit 0 6");
}

TEST_F(SqueezeFailure, OfALeftoverTemporaryFile) {
    WriteText(Temporary(), "left over");
    const std::string text = "Cannot create temporary file '" + Temporary() + "';" +
                             SysErr(SystemErrorKind::kAlreadyExists);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{text});
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
    EXPECT_EQ(ReadText(Temporary()), "left over");
    EXPECT_TRUE(m_solid.IsOpen());
    EXPECT_EQ(WrittenBytes(), RaisedBytes());
}

TEST_F(SqueezeFailure, OfTheInitialSize) {
    OpenScanned(ThreeTransactions(), "file_initial_size=1");
    FailSetEnd(1);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(),
              Texts{"Cannot set initial file size (1048576);" + SysErr(SystemErrorKind::kNoSpace)});
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kRaised);
}

TEST_F(SqueezeFailure, OfAShortReadOfTheHeader) {
    ShortRead(1, 1000);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Failed to read file header; sys-err 0"});
    EXPECT_TRUE(m_solid.IsOpen());
}

TEST_F(SqueezeFailure, OfAShortReadOfTheCommitBlock) {
    ShortRead(2, 31);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Failed to read block;sys-err 0,offset 1199"});
    EXPECT_TRUE(m_solid.IsOpen());
}

TEST_F(SqueezeFailure, OfAShortReadOfTheItems) {
    ShortRead(3, 100);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Failed to read block;sys-err 0,offset 1171"});
    ExpectOnlyTheOldFile(Left::kRaised);
    EXPECT_EQ(Enumerated(1, 9).size(), 5U);
}

TEST_F(SqueezeFailure, OfAShortWriteOfTheItems) {
    ShortWrite(3, 100);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(),
              Texts{"Failed to write block;" + SysErr(SystemErrorKind::kNoSpace) + ",offset 1171"});
    ExpectOnlyTheOldFile(Left::kRaised);
}

TEST_F(SqueezeFailure, OfAPlaceThatIsNoCommitBlock) {
    SqueezeRequest request = Request();
    request.commitOffset = kCopyFrom;
    EXPECT_EQ(Squeeze(request), RC_BAD_DATA);
    EXPECT_EQ(Errors(), Texts{"Wrong signature (0x7B3A2D2A) found, offset 1171"});
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kRaised);
}

TEST_F(SqueezeFailure, WithATemporaryFileThatCannotBeDeleted) {
    FailWrite(3);
    FailRemove(1);
    const std::string text = "Cannot delete temporary file; " +
                             SysErr(SystemErrorKind::kAccessDenied) + "; tempfile: '" +
                             Temporary() + "'";
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors().size(), 2U);
    EXPECT_EQ(Errors().back(), text);
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Temporary()));
    EXPECT_TRUE(m_solid.IsOpen());
}

TEST_F(SqueezeFailure, OfTheFirstBytesMemory) {
    FailAlloc(RunsAsynchronously() ? 2 : 1);  // the queue copies the commit block first
    EXPECT_EQ(Squeeze(), RC_NO_MEMORY);
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kRaised);
}

TEST_F(SqueezeFailure, OfTheCopyBuffersMemory) {
    FailAlloc(1, 10 * 1024 * 1024);
    EXPECT_EQ(Squeeze(), RC_NO_MEMORY);
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kRaised);
    EXPECT_EQ(Squeeze(), RC_OK);
}

TEST_F(SqueezeFailure, OfClosingChangesNothing) {
    for (const u32 nth : {1U, 2U, 3U}) {
        OpenScanned(ThreeTransactions());
        Fail(kClose, nth);
        EXPECT_EQ(Squeeze(), RC_OK);
        EXPECT_EQ(WrittenBytes(), NewBytes());
    }
}

TEST_F(SqueezeFailure, OfAnyAllocation) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);  // collecting messages allocates, too
    u32 struck = 0;
    for (u32 rc = RC_NO_MEMORY; rc != RC_OK;) {
        OpenScanned(ThreeTransactions());
        {
            const FailNthNew fault(struck + 1);
            rc = Squeeze();
            EXPECT_EQ(rc != RC_OK, fault.Struck()) << rc;
        }
        struck += rc == RC_OK ? 0U : 1U;
        EXPECT_FALSE(Exists(Temporary())) << struck;
        ExpectNothingLost();
    }
    EXPECT_GE(struck, 3U);  // the names
}

TEST_F(SqueezeFailure, OfMemoryForTheNamesTouchesNothing) {
    K9SysSetLogLevel(nullptr, K9SYS_LOG_OFF);
    {
        const FailNthNew fault(1);
        EXPECT_EQ(Squeeze(), RC_NO_MEMORY);
    }
    EXPECT_TRUE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kOld);
}

// --- Without a backup --------------------------------------------------------------------------

TEST_F(SqueezeFailure, OfTheRenamingWithoutABackupLeavesTheOldFile) {
    FailRename(1);
    EXPECT_EQ(Squeeze(false), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Cannot rename file; sys-err: " +
                              std::to_string(SystemErrorOf(SystemErrorKind::kAccessDenied)) +
                              "; tempfile: '" + Temporary() + "'"});
    EXPECT_FALSE(m_solid.IsOpen());
    ExpectOnlyTheOldFile(Left::kRaised);
    ExpectNothingLost();
}

TEST_F(SqueezeFailure, OfTheDirectoryWithoutABackupLeavesTheNewFile) {
    FailFlushDirectory(1);
    EXPECT_EQ(Squeeze(false), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors(), Texts{"Cannot flush directory of file '" + Path() + "';" + m_ioError});
    EXPECT_FALSE(m_solid.IsOpen());
    EXPECT_EQ(WrittenBytes(), NewBytes());
    EXPECT_FALSE(Exists(Temporary()));
    ExpectNothingLost();
}

}  // namespace
}  // namespace k9erepl::test
