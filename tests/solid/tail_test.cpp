// What lies behind the last commit block at the end of a load: torn transactions, the zeroing of
// what could be taken for data later, and damage in the middle of the file, which is reported and
// kept.
#include "solid/tail_copy.h"

#include <filesystem>
#include <functional>
#include <utility>

#include "solid/solid_fixture.h"
#include "support/file_bytes.h"

namespace k9erepl::test {
namespace {

class ScanTail : public SolidTest {
  protected:
    static constexpr i64 kFirstEnd = 1142;  // of the first transaction of two

    ScanTail() { m_firstTransaction.resize(4); }

    std::vector<u8> Tail(i64 offset) {
        const std::vector<u8> bytes = WrittenBytes();
        return {At(bytes, offset), bytes.end()};
    }
    static bool AllZero(const std::vector<u8>& bytes) {
        return bytes == std::vector<u8>(bytes.size(), 0);
    }

    Items m_firstTransaction = TwoTransactionsItems();

    std::size_t Zeroings() const { return m_log.CountContaining("Abandoned data was cleared;"); }
};

TEST_F(ScanTail, ATransactionCutAtAnyByteIsGone) {
    const FileBuilder whole = TwoTransactions();
    for (i64 size = kFirstEnd; size < whole.Size(); ++size) {
        Open(FileBuilder(whole).CutTo(size));
        Items items = Scanned();
        EXPECT_EQ(FlushedRev(), 2) << size;
        EXPECT_EQ(items.size(), size >= 1171 ? 5U : 4U) << size;
        items.resize(4);
        EXPECT_EQ(items, m_firstTransaction) << size;
        EXPECT_EQ(WriteTransaction(3, "again"), kFirstEnd) << size;
        m_solid.Close();
        EXPECT_EQ(ItemsOfFile().back(), "commit 0 3") << size;
    }
}

TEST_F(ScanTail, IsZeroedBeforeTheFirstWriteAndStaysUntilThen) {
    Open(TwoTransactions().CutTo(1190).Fill(5000, 0xEE));
    const std::vector<u8> before = WrittenBytes();
    Scanned();
    EXPECT_EQ(WrittenBytes(), before);
    EXPECT_EQ(WriteTransaction(3, "x"), kFirstEnd);
    EXPECT_TRUE(AllZero(Tail(kFirstEnd + 25 + 32)));
    EXPECT_EQ(WrittenSize(), 6190);
    EXPECT_TRUE(m_log.Has("Abandoned data was cleared;offset 1142,file size 6190")) << m_log;
    WriteTransaction(4, "y");
    EXPECT_EQ(Zeroings(), 1U);
}

TEST_F(ScanTail, IsZeroedUnlessItIsKnownToBeZeros) {
    constexpr std::size_t kBuffer = FileScan::kBufferSize;
    const std::pair<FileBuilder, bool> files[] = {
        {TwoTransactions(), false},
        {TwoTransactions().Zeros(5000), false},
        {TwoTransactions().Zeros(kBuffer), false},
        {TwoTransactions().Zeros(kBuffer + 1), true},
        {TwoTransactions().Zeros(4000).RawWord(1).Zeros(10), true},
        {TwoTransactions().Zeros(kBuffer).RawWord(kCommitSignature), true},
        {TwoTransactions().Zeros(kBuffer).RawWord(1), true},
        {TwoTransactions().Fill(1, 0x2A), true},
        {TwoTransactions().Record(4, "whole"), true}};
    for (const auto& [file, zeroed] : files) {
        SCOPED_TRACE(file.Size());
        Open(file);
        Scanned();
        EXPECT_EQ(WriteTransaction(4, "x"), kTwoTransactionsEnd);
        EXPECT_EQ(Zeroings(), zeroed ? 1U : 0U);
        EXPECT_TRUE(AllZero(Tail(kTwoTransactionsEnd + 25 + 32)));
        m_solid.Close();
    }
}

TEST_F(ScanTail, AScanEmptiesTheReadBuffers) {
    Open(TwoTransactions());
    Scanned();
    EXPECT_EQ(Enumerated(1, 1), Items{"record 1 at 1056: one"});
    PatchBytes(Path(), 1080, std::vector<u8>{'O', 'N', 'E'});
    Scanned();
    EXPECT_EQ(Enumerated(1, 1), Items{"record 1 at 1056: ONE"});
}

TEST_F(ScanTail, ARescanBringsNoUndoneTransactionBack) {
    Open(TwoTransactions().Zeros(500));
    Scanned();
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    WriteRecord(4, "four");
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK);
    m_log.Clear();
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
    EXPECT_TRUE(m_log.Has("Loading stopped at the end of the written data, offset 1203")) << m_log;
    EXPECT_EQ(FlushedRev(), 3);
}

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
    LoadScan(TailCare::kReport);
    EXPECT_EQ(m_log.Texts(), Texts{Report()});
    EXPECT_FALSE(Exists(Copy()));
    WriteText(Temporary(), "half of a copy");
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

TEST_F(DamagedTail, ThatAlsoRaisedARevisionAtTheStopIsReported) {
    constexpr i64 kBlock = RunAt(2) + 27;
    FiveRuns().Save(Path());
    PatchBytes(Path(), kBlock + 30, std::vector<u8>{0x55});  // of the last good block
    PatchBytes(Path(), RunAt(3), std::vector<u8>(kRunSize, 0x55));
    Open();
    LoadScan();
    EXPECT_EQ(m_log.CountContaining("Damage in the middle"), 1U) << m_log;
    EXPECT_EQ(ReadBytes(Copy()), TailOfFile(RunAt(3)));
    m_solid.Close();
    FiveRuns().Save(Path());
    PatchBytes(Path(), kBlock + 23, std::vector<u8>{0xFF});
    PatchBytes(Path(), kBlock + 30, std::vector<u8>{0x55});  // of the block at the stop
    Open();
    LoadScan();
    EXPECT_EQ(m_log.CountContaining("Damage in the middle"), 1U) << m_log;
    EXPECT_EQ(ReadBytes(Copy(1)), TailOfFile(RunAt(2)));
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

TEST_F(DamagedTail, IsTriedAgainOnceBeforeTheFirstThingThatWrites) {
    const std::function<u32()> writes[] = {
        [this] { return WriteTransaction(2, "new") == RunAt(2) ? RC_OK : RC_SYSTEM_ERROR; },
        [this] { return m_solid.TruncateToClearRev(9, 0, 0); },
        [this] { return m_solid.SetClearRev(1); }};
    for (const auto& write : writes) {
        OpenDamaged();
        const std::vector<u8> tail = TailOfFile();
        std::filesystem::remove(Copy());
        FailRename(1);
        LoadScan();
        ASSERT_FALSE(Exists(Copy()));
        EXPECT_EQ(write(), RC_OK);
        EXPECT_EQ(ReadBytes(Copy()), tail);
        m_log.Clear();
        WriteTransaction(10, "next");
        EXPECT_EQ(m_log.CountContaining("amaged tail"), 0U);
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
