// Damage in the middle of the storage file at the end of a load: what is said, and the copy that is
// kept of what lies behind it.
#include "solid/tail_copy.h"

#include <filesystem>

#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

// Records 1 to 5, each with a commit block of its own; 59 bytes each, and 1056 before them.
constexpr i64 kRunSize = 59;
constexpr i64 RunAt(i64 rev) {
    return kFirstItemOffset + (rev - 1) * kRunSize;
}

FileBuilder FiveRuns() {
    FileBuilder file;
    file.NewFile();
    for (i64 rev = 1; rev <= 5; ++rev) {
        file.Record(rev, "abc").Commit(0, rev);
    }
    return file;
}

class DamagedTail : public SolidTest {
  protected:
    // Opens the five runs with the run of revision 2 damaged in its first byte.
    void OpenDamaged(const std::string& settings = "") {
        FiveRuns().Save(Path());
        PatchBytes(Path(), RunAt(2), std::vector<u8>{0x55});
        Open(settings);
    }
    // What a load does of all this.
    void LoadScan(TailCare care = TailCare::kKeepCopy) {
        ASSERT_EQ(ScanFrom(0), RC_OK) << m_log;
        m_log.Clear();
        m_solid.KeepTailIfDamaged(care);
    }
    std::string Copy(u32 number = 0) const { return DamagedTailName(Path(), number); }
    std::string Temporary() const { return Path() + ".damaged-tail.temporary"; }
    std::vector<u8> TailOfFile(i64 from = RunAt(2)) const {
        const std::vector<u8> bytes = ReadBytes(Path());
        return {bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end()};
    }
    std::string Report(i64 offset = RunAt(2), const std::string& revs = "3-5") const {
        return "Damage in the middle of file '" + Path() + "';offset " + std::to_string(offset) +
               ",last good rev 1,revs beyond " + revs;
    }
    std::string CannotKeep(SystemErrorKind kind) const {
        return "Cannot keep damaged tail of file '" + Path() + "';" + SysErr(kind);
    }
    void ExpectNothing() {
        EXPECT_EQ(m_log.Texts(), Texts());
        EXPECT_FALSE(Exists(Copy()));
    }
};

TEST_F(DamagedTail, IsReportedAndKept) {
    OpenDamaged();
    const std::vector<u8> before = ReadBytes(Path());
    LoadScan();
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{Report()});
    EXPECT_EQ(m_log.CodeOf(Report()), RC_FILE_CORRUPT);
    EXPECT_TRUE(
        m_log.Has(K9SYS_LOG_WARNING, "Damaged tail is kept in file '" + Copy() + "';size 236"))
        << m_log;
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile());
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_EQ(ReadBytes(Path()), before);
    EXPECT_EQ(FlushedRev(), 1);
}

TEST_F(DamagedTail, IsKeptFromTheLastGoodCommitBlockOn) {
    // Record 2 is sound, but the block that commits it lies behind the damage.
    FileBuilder file;
    file.NewFile().Record(1, "abc").Commit(0, 1).Record(2, "abc").RawWord(0x55).Record(3, "");
    file.Commit(0, 3).Commit(0, 3);
    Open(file);
    LoadScan();
    EXPECT_TRUE(m_log.Has(Report(RunAt(2) + 27, "3-3"))) << m_log;
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile(RunAt(2)));
}

TEST_F(DamagedTail, OfAnyByteInTheMiddleThatEndsTheScanIsReported) {
    const FileBuilder whole = FiveRuns();
    i64 reported = 0;
    for (i64 at = RunAt(2); at < RunAt(3); ++at) {
        std::vector<u8> bytes = whole.Bytes();
        bytes[static_cast<std::size_t>(at)] ^= 0x40;
        WriteBytes(Path(), bytes);
        Open();
        LoadScan(TailCare::kReport);
        const bool ended = m_items.size() < 11;
        EXPECT_EQ(m_log.CountContaining("Damage in the middle"), ended ? 1U : 0U) << at;
        m_solid.Close();
        reported += ended ? 1 : 0;
    }
    // Not judged: the user's word, data, the word of a commit block that is ignored.
    EXPECT_EQ(reported, kRunSize - 4 - 3 - 4);
}

TEST_F(DamagedTail, ThatAlsoRaisedTheLastGoodRevisionIsReported) {
    FiveRuns().Save(Path());
    PatchBytes(Path(), RunAt(2) + 27 + 30, std::vector<u8>{0x55});
    PatchBytes(Path(), RunAt(3), std::vector<u8>(kRunSize, 0x55));
    Open();
    LoadScan();
    EXPECT_EQ(m_log.CountContaining("Damage in the middle"), 1U) << m_log;
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile(RunAt(3)));
}

TEST_F(DamagedTail, ThatAlsoRaisedTheRevisionOfTheBlockAtTheStopIsReported) {
    FiveRuns().Save(Path());
    PatchBytes(Path(), RunAt(2) + 27 + 23, std::vector<u8>{0xFF});
    PatchBytes(Path(), RunAt(2) + 27 + 30, std::vector<u8>{0x55});
    Open();
    LoadScan();
    EXPECT_EQ(m_log.CountContaining("Damage in the middle"), 1U) << m_log;
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile(RunAt(2)));
}

TEST_F(DamagedTail, IsFoundBehindWhatEndsTheScanInOtherWays) {
    // The chain is broken at the stop itself.
    FiveRuns().Save(Path());
    PatchBytes(Path(), RunAt(2) + 27 + 8, std::vector<u8>{0x55, 0x55});
    Open();
    LoadScan();
    EXPECT_TRUE(m_log.Has("Damage in the middle of file '" + Path() + "';offset " +
                          std::to_string(RunAt(3) + 27) + ",last good rev 2,revs beyond 4-5"))
        << m_log;
}

TEST_F(DamagedTail, IsNotMadeOfATornEnd) {
    for (i64 size = RunAt(4); size <= RunAt(6); ++size) {
        Open(FiveRuns().CutTo(size).Fill(60, 0xEE));
        LoadScan();
        ExpectNothing();
        m_solid.Close();
    }
}

TEST_F(DamagedTail, IsNotMadeOfOneTornWrite) {
    // Of the last run, any one byte is lost; its commit block still links.
    for (i64 at = RunAt(5); at < RunAt(6); ++at) {
        FiveRuns().Save(Path());
        PatchBytes(Path(), at, std::vector<u8>{0x99});
        Open();
        LoadScan();
        ExpectNothing();
        m_solid.Close();
    }
}

TEST_F(DamagedTail, IsNotMadeOfAGhostCommit) {
    TCommitBlock ghost = NewCommitBlock(0x666, 9);
    FileBuilder file = FiveRuns();
    ghost.prevSequence = file.LastSequence();
    Open(file.Fill(30, 0xEE).RawCommit(ghost));
    LoadScan();
    ExpectNothing();
}

TEST_F(DamagedTail, IsNotMadeOfOldItemsBehindANewBeginning) {
    Open(FiveRuns());
    ASSERT_EQ(ScanFrom(0), RC_OK);
    ASSERT_EQ(m_solid.TruncateToClearRev(0, 0, 0), RC_OK);
    Reopen();
    LoadScan();
    ExpectNothing();
}

TEST_F(DamagedTail, IsNotLookedForBehindZeros) {
    Open(FiveRuns().Zeros(5000));
    ASSERT_EQ(ScanFrom(0), RC_OK);
    const u32 reads = CallCount(SystemCall::kRead);
    m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
    EXPECT_EQ(CallCount(SystemCall::kRead), reads);
}

TEST_F(DamagedTail, IsOnlyReportedWhenNothingWillBeWritten) {
    OpenDamaged();
    LoadScan(TailCare::kReport);
    EXPECT_EQ(m_log.Texts(), Texts{Report()});
    EXPECT_FALSE(Exists(Copy()));
}

TEST_F(DamagedTail, IsKeptOnceHoweverOftenTheFileIsOpened) {
    for (int i = 0; i < 3; ++i) {
        OpenDamaged();
        LoadScan();
        m_solid.Close();
    }
    EXPECT_TRUE(m_log.Has("Damaged tail was kept before in file '" + Copy() + "'")) << m_log;
    EXPECT_TRUE(Exists(Copy()));
    EXPECT_FALSE(Exists(Copy(1)));
}

TEST_F(DamagedTail, NeverReplacesAnotherOne) {
    WriteText(Copy(), "an earlier one");
    WriteText(Copy(1), std::string(236, 'x'));
    OpenDamaged();
    LoadScan();
    EXPECT_EQ(ReadText(Copy()), "an earlier one");
    EXPECT_EQ(ReadText(Copy(1)), std::string(236, 'x'));
    EXPECT_EQ(ReadBytes(Copy(2)), TailOfFile());
}

TEST_F(DamagedTail, GivesUpWhenAllNamesAreTaken) {
    for (u32 number = 0; number < kDamagedTailsMost; ++number) {
        WriteText(Copy(number), "taken");
    }
    OpenDamaged();
    LoadScan();
    EXPECT_EQ(m_log.CodeOf(CannotKeep(SystemErrorKind::kAlreadyExists)), RC_SYSTEM_ERROR) << m_log;
}

TEST_F(DamagedTail, LargerThanABufferIsKeptWhole) {
    Open(FiveRuns().LargeRecord(6, 3'000'000).Commit(0, 6).Zeros(70'000));
    m_solid.Close();
    PatchBytes(Path(), RunAt(2), std::vector<u8>{0x55});
    Open();
    LoadScan();
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile());
    m_solid.Close();
    Open();
    LoadScan();
    EXPECT_FALSE(Exists(Copy(1)));
}

TEST_F(DamagedTail, AnUnfinishedCopyIsReplaced) {
    WriteText(Temporary(), "half");
    OpenDamaged();
    LoadScan();
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile());
    EXPECT_FALSE(Exists(Temporary()));
}

// --- A copy that fails ---------------------------------------------------------------------------

TEST_F(DamagedTail, ThatCannotBeKeptIsNoFailureAndLeavesNothingHalf) {
    struct {
        SystemCall call;
        SystemErrorKind kind;
    } const faults[] = {{SystemCall::kWrite, SystemErrorKind::kNoSpace},
                        {SystemCall::kFlush, SystemErrorKind::kInputOutput},
                        {SystemCall::kRename, SystemErrorKind::kAccessDenied},
                        {SystemCall::kOpen, SystemErrorKind::kAccessDenied}};
    for (const auto& fault : faults) {
        OpenDamaged();
        ASSERT_EQ(ScanFrom(0), RC_OK);
        // The first opening looks whether the name is free.
        Fail(fault.call, fault.call == SystemCall::kOpen ? 2 : 1, fault.kind);
        m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
        EXPECT_EQ(m_log.CodeOf(CannotKeep(fault.kind)), RC_SYSTEM_ERROR) << m_log;
        EXPECT_FALSE(Exists(Copy()));
        EXPECT_FALSE(Exists(Temporary()));
        m_solid.Close();
    }
}

TEST_F(DamagedTail, ReachesTheDiskBeforeItGetsItsNameAndItsNameFollows) {
    OpenDamaged();
    ASSERT_EQ(ScanFrom(0), RC_OK);
    FailFlushDirectory(1);
    m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
    EXPECT_EQ(CallCount(SystemCall::kFlush), 1U);
    EXPECT_EQ(CallCount(SystemCall::kRename), 1U);
    EXPECT_TRUE(m_log.Has(CannotKeep(SystemErrorKind::kInputOutput))) << m_log;
}

TEST_F(DamagedTail, IsTriedAgainBeforeTheFirstWrite) {
    OpenDamaged();
    const std::vector<u8> tail = TailOfFile();
    FailWrite(1);
    LoadScan();
    EXPECT_FALSE(Exists(Copy()));
    EXPECT_EQ(WriteTransaction(2, "new"), RunAt(2));
    EXPECT_EQ(ReadBytes(Copy()), tail);
    m_log.Clear();
    WriteTransaction(3, "next");
    EXPECT_EQ(m_log.CountContaining("amaged tail"), 0U);
}

TEST_F(DamagedTail, ThatCannotBeKeptTheSecondTimeIsGivenUp) {
    OpenDamaged();
    FailRename(1);
    LoadScan();
    FailRename(1);
    EXPECT_EQ(WriteTransaction(2, "new"), RunAt(2));
    EXPECT_EQ(m_log.Count(CannotKeep(SystemErrorKind::kAccessDenied)), 2U) << m_log;
    EXPECT_FALSE(Exists(Copy()));
    WriteTransaction(3, "next");
    EXPECT_EQ(m_log.Count(CannotKeep(SystemErrorKind::kAccessDenied)), 2U);
    EXPECT_EQ(FlushedRev(), 3);
}

TEST_F(DamagedTail, IsTriedAgainBeforeEveryThingThatWrites) {
    for (const bool startOver : {true, false}) {
        OpenDamaged();
        const std::vector<u8> tail = TailOfFile();
        std::filesystem::remove(Copy());
        FailRename(1);
        LoadScan();
        ASSERT_FALSE(Exists(Copy()));
        EXPECT_EQ(startOver ? m_solid.TruncateToClearRev(9, 0, 0) : m_solid.SetClearRev(1), RC_OK);
        EXPECT_EQ(ReadBytes(Copy()), tail) << startOver;
        m_solid.Close();
    }
}

TEST_F(DamagedTail, OfTheFileBeforeIsForgotten) {
    OpenDamaged();
    FailRename(1);
    LoadScan();
    m_solid.Close();
    Open(FiveRuns());
    ASSERT_EQ(ScanFrom(0), RC_OK);
    WriteTransaction(6, "six");
    EXPECT_FALSE(Exists(Copy()));
}

TEST_F(DamagedTail, ThatCouldNotBeLookedForIsLookedForBeforeTheFirstWrite) {
    OpenDamaged();
    const std::vector<u8> tail = TailOfFile();
    ASSERT_EQ(ScanFrom(0), RC_OK);
    FailRead(1);
    m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
    EXPECT_FALSE(Exists(Copy()));
    EXPECT_EQ(WriteTransaction(2, "new"), RunAt(2));
    EXPECT_EQ(ReadBytes(Copy()), tail);
    EXPECT_EQ(WriteTransaction(3, "newer"), RunAt(2) + 27 + 32);
    EXPECT_EQ(m_log.CountContaining("Damage in the middle of file"), 1U) << m_log;
}

TEST_F(DamagedTail, ThatCannotBeLookedForIsNoFailure) {
    OpenDamaged();
    ASSERT_EQ(ScanFrom(0), RC_OK);
    FailAlloc(1);
    m_solid.KeepTailIfDamaged(TailCare::kKeepCopy);
    const std::string text =
        "Cannot look for damage in file '" + Path() + "';offset " + std::to_string(RunAt(2));
    EXPECT_EQ(m_log.CodeOf(text), RC_NO_MEMORY) << m_log;
    FailAlloc(1);
    EXPECT_EQ(WriteTransaction(2, "new"), RunAt(2));
    EXPECT_EQ(m_log.Count(text), 2U) << m_log;
    EXPECT_FALSE(Exists(Copy()));
}

}  // namespace
}  // namespace k9erepl::test
