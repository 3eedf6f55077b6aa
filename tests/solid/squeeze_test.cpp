// The squeeze that succeeds: the new file's bytes, and that work goes on in it. The names around
// it: the backup, the temporary file, and the directory; what only POSIX has is in
// posix/squeeze_links_test.cpp.
#include <filesystem>

#include "platform/file_names.h"
#include "solid/squeeze_fixture.h"

namespace k9erepl::test {
namespace {

using Squeezed = SqueezeTest;

TEST_F(Squeezed, HoldsExactlyTheseBytesAndWorkGoesOnInIt) {
    EXPECT_EQ(m_solid.BeginTransaction(), RC_OK);
    std::vector<i64> announced;
    m_solid.SetWrittenRevisionCallback(
        [](std::int64_t rev, void* ctx) { static_cast<std::vector<i64>*>(ctx)->push_back(rev); },
        &announced);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(announced, std::vector<i64>{5});
    m_solid.SetWrittenRevisionCallback(nullptr, nullptr);
    EXPECT_EQ(m_solid.RollbackWrites(), RC_OK) << "the transaction is forgotten";
    EXPECT_EQ(WrittenBytes(), NewBytes());
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(FlushedRev(), 5);
    EXPECT_EQ(m_solid.FileSize(), kNewEnd);
    EXPECT_EQ(m_shift, 1056 - 1171);
    EXPECT_EQ(m_solid.CheckRecordAt(5, 1231 + m_shift), RC_OK);
    EXPECT_EQ(WriteTransaction(6, "six"), kNewEnd);
    Items expected = NewItems();
    expected.insert(expected.end(), {"record 6 at 1208: six", "commit 4 6"});
    EXPECT_EQ(ItemsOfFile(), expected);
}

TEST_F(Squeezed, KeepsTheHeaderAndBeginsWithACommitBlockThatTheFirstKeptOneLinksTo) {
    PatchBytes(Path(), 24, FileBytes(1000, 0x77));
    PatchBytes(Path(), kCommitOffset + 12, FileBytes{1, 2, 3, 4});
    const FileBytes old = WrittenBytes();
    EXPECT_EQ(Squeeze(), RC_OK);
    const FileBytes squeezed = WrittenBytes();
    EXPECT_EQ(FileBytes(squeezed.begin(), squeezed.begin() + kFileHeaderSize),
              FileBytes(old.begin(), old.begin() + kFileHeaderSize));
    const auto first = LoadUnaligned<TCommitBlock>(squeezed.data() + kFirstCommitOffset);
    EXPECT_EQ(u32{first.signature}, kCommitSignature);
    EXPECT_EQ(u32{first.prevSequence}, 0U);
    EXPECT_EQ(u32{first.sequence}, FileBuilder::kFirstSequence + 1);
    EXPECT_EQ(u32{first.zero}, 0x04030201U);  // taken over from the kept one
    EXPECT_EQ(i64{first.clearRev}, 0);
    EXPECT_EQ(i64{first.commitRev}, kClearRev);
    EXPECT_EQ(ItemsOfFile(), NewItems());
}

TEST_F(Squeezed, SaysWhatItDoes) {
    SetTickCount(0xFFFF'FFF0);
    EXPECT_EQ(SqueezeWith([] {
                  AdvanceTickCount(250);
                  return RC_OK;
              }),
              RC_OK);
    EXPECT_EQ(LoggedTexts(),
              (Texts{"Performing file squeeze; rev 4", "Set clear rev 4",
                     "Creating temp file '" + Temporary() + "'",
                     "Copying data to temporary file; from offset 1171; size to write 152",
                     "Written 152 bytes", "Copying data to temporary file finished",
                     "File squeeze finished; it took 250 ms; old data size: 1291, new data size: "
                     "1208"}));
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_INFO), m_log.Texts());
}

TEST_F(Squeezed, OpensAThirdHandleForALockThatCameWithTheNewFile) {
    const std::size_t descriptors = OpenDescriptors();
    for (const bool locked : {true, true, false}) {
        OpenScanned(ThreeTransactions(), locked ? "" : "file_lock=no");
        EXPECT_EQ(Squeeze(), RC_OK);
        EXPECT_EQ(OpenDescriptors(),
                  descriptors + (locked && platform::kOpenFilesCanBeRenamed ? 1 : 0));
    }
}

TEST_F(Squeezed, IsCopiedInPieces) {
    constexpr u32 kLarge = 9 * 1024 * 1024;
    FileBuilder file;
    file.NewFile().Record(1, "one").Commit(0, 1).LargeRecord(2, kLarge).LargeRecord(3, kLarge);
    const i64 commitOffset = file.Size();
    OpenScanned(file.Commit(0, 3));
    EXPECT_EQ(Squeeze({.clearRev = 2, .copyFrom = 1115, .commitOffset = commitOffset}), RC_OK);
    EXPECT_TRUE(
        m_log.Has("Copying data to temporary file; from offset 1115; size to write "
                  "18874480"));
    EXPECT_TRUE(m_log.Has("Written 10485760 bytes"));
    EXPECT_TRUE(m_log.Has("Written 18874480 bytes"));
    EXPECT_EQ(m_log.CountContaining(" bytes"), 2U);
    EXPECT_EQ(ItemsOfFile(),
              (Items{"commit 0 2", "record 2 at 1056: 9437184 pattern bytes",
                     "record 3 at 9438264: 9437184 pattern bytes", "commit 0 3", "commit 2 3"}));
}

TEST_F(Squeezed, HasTheInitialSizeFilledWithZerosOrGrowsByTheStepFromItsNewSize) {
    OpenScanned(ThreeTransactions(), "file_initial_size=1");
    EXPECT_EQ(Squeeze(), RC_OK);
    FileBytes expected = NewBytes();
    expected.resize(kMebibyte);
    EXPECT_EQ(WrittenBytes(), expected);
    EXPECT_EQ(m_solid.FileSize(), kMebibyte);
    EXPECT_EQ(WriteTransaction(6, "six"), kNewEnd);
    EXPECT_EQ(WrittenSize(), kMebibyte);
    OpenScanned(ThreeTransactions().Zeros(5000), "file_size_delta=1");
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(WrittenBytes(), NewBytes()) << "dead bytes stay behind";
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    WriteTransaction(6, "six");
    EXPECT_EQ(WrittenSize(), kNewEnd + kMebibyte);
    EXPECT_EQ(m_solid.FileSize(), kNewEnd + kMebibyte);
}

class SqueezedEmpty : public SqueezeTest {
  protected:
    // Everything up to the write position goes, that is to behind the clear revision's own block.
    u32 SqueezeAll(bool keepBackup = true) {
        return Squeeze({.clearRev = 5,
                        .copyFrom = kOldEnd + kCommitBlockSize,
                        .commitOffset = kOldEnd,
                        .keepBackup = keepBackup});
    }
};

TEST_F(SqueezedEmpty, HoldsTheHeaderTheFirstCommitBlockAndEightZeros) {
    EXPECT_EQ(SqueezeAll(), RC_OK);
    const TCommitBlock first = NewCommitBlock(ThreeTransactions().LastSequence(), 5);
    EXPECT_EQ(WrittenBytes(),
              FileBuilder().Header(kLifenum, kClearOldRev).RawCommit(first).Zeros(8).Bytes());
    EXPECT_EQ(m_log.CountContaining("old data size: 1291, new data size: 1056"), 1U) << m_log;
    EXPECT_TRUE(m_log.Has("Copying data to temporary file; from offset 1323; size to write 0"));
    EXPECT_EQ(Enumerated(1, 9), Items{});
    EXPECT_EQ(WriteTransaction(6, "six"), kFirstItemOffset);
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 0 5", "record 6 at 1056: six", "commit 5 6"}));
}

TEST_F(SqueezedEmpty, OfAStorageWithoutItemsKeepsABackupThatLoads) {
    const FileBuilder empty = FileBuilder().NewFile().Zeros(8);
    OpenScanned(empty);
    EXPECT_EQ(Squeeze({.clearRev = 0,
                       .copyFrom = kFirstItemOffset,
                       .commitOffset = kFirstItemOffset,
                       .keepBackup = true}),
              RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), empty.Bytes());
    EXPECT_EQ(ItemsOfFile(), (Items{"commit 0 0", "commit 0 0"}));
}

TEST_F(Squeezed, AsksBeforeItReplacesTheFileWhenTheCopyIsOnTheDisk) {
    u32 calls = 0;
    EXPECT_EQ(SqueezeWith([&] {
                  ++calls;
                  EXPECT_TRUE(m_solid.IsOpen());
                  EXPECT_EQ(WrittenBytes(), RaisedBytes());
                  EXPECT_EQ(ReadBytes(Temporary()), NewBytes());
                  EXPECT_FALSE(Exists(Backup()));
                  // The old file; the beginning of the new one; all of it.
                  EXPECT_EQ(CallCount(SystemCall::kFlush), 3U);
                  EXPECT_EQ(CallCount(SystemCall::kWrite), 3U);
                  EXPECT_EQ(CallCount(SystemCall::kRename), 0U);
                  return RC_OK;
              }),
              RC_OK);
    EXPECT_EQ(calls, 1U);
    EXPECT_EQ(CallCount(SystemCall::kWrite), 3U);
}

TEST_F(Squeezed, IsGivenUpWhenTheAnswerIsNo) {
    EXPECT_EQ(SqueezeWith([] { return RC_SHORT_READ; }), RC_SHORT_READ);
    EXPECT_TRUE(m_solid.IsOpen());
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_FALSE(Exists(Backup()));
    EXPECT_EQ(WrittenBytes(), RaisedBytes());
    EXPECT_EQ(m_shift, 12345);
    EXPECT_EQ(m_log.Texts(K9SYS_LOG_ERROR), Texts{});
    EXPECT_EQ(WriteTransaction(6, "six"), kOldEnd + kCommitBlockSize);
    EXPECT_EQ(Enumerated(1, 9).size(), 6U);
    EXPECT_EQ(ItemsOfFile().back(), "commit 4 6");
}

class SqueezeNamesTest : public SqueezeTest {
  protected:
    Texts Errors() const { return m_log.Texts(K9SYS_LOG_ERROR); }
    // A notification that writes a transaction of its own.
    static void WriteBehindRevision5(std::int64_t rev, void* ctx) {
        if (rev == 5) {
            static_cast<SqueezeNamesTest*>(ctx)->WriteTransaction(6, "six");
        }
    }

    const std::string m_denied = std::to_string(SystemErrorOf(SystemErrorKind::kAccessDenied));
};

TEST_F(SqueezeNamesTest, TheBackupLeavesOutWhatANotificationWrote) {
    SKIP_WHEN_ASYNC("the notification may write");
    m_solid.SetWrittenRevisionCallback(&WriteBehindRevision5, this);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_EQ(ItemsOfFile().back(), "commit 4 6");
    EXPECT_EQ(Enumerated(6, 6), Items{"record 6 at 1208: six"});
}

TEST_F(SqueezeNamesTest, TheBackupReplacesAnOlderOneAndItsIndex) {
    WriteText(Backup(), "old backup");
    WriteText(BackupIndex(), "old index");
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_FALSE(Exists(BackupIndex()));
    EXPECT_EQ(WrittenBytes(), NewBytes());
}

TEST_F(SqueezeNamesTest, WithoutABackupNoneIsMadeAndAnOlderOneStays) {
    WriteText(Backup(), "old backup");
    WriteText(BackupIndex(), "old index");
    EXPECT_EQ(Squeeze(false), RC_OK);
    EXPECT_EQ(ReadText(Backup()), "old backup");
    EXPECT_EQ(ReadText(BackupIndex()), "old index");
    EXPECT_EQ(WrittenBytes(), NewBytes());
    EXPECT_FALSE(Exists(Temporary()));
    for (const SystemCall call : {SystemCall::kSetEnd, SystemCall::kLink, SystemCall::kRemove}) {
        EXPECT_EQ(CallCount(call), 0U);
    }
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 1U);
}

TEST_F(SqueezeNamesTest, ABackupIndexThatCannotBeDeletedIsIgnored) {
    WriteText(BackupIndex(), "old index");
    FailRemove(1);
    EXPECT_EQ(Squeeze(), RC_OK);
    EXPECT_EQ(ReadText(BackupIndex()), "old index");
    EXPECT_EQ(Errors(), Texts{});
}

TEST_F(SqueezeNamesTest, ABackupThatIsADirectoryIsAnError) {
    std::filesystem::create_directory(Backup());
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_log.CountContaining("Cannot create backup file; sys-err: "), 1U);
    ExpectNothingLost();
}

TEST_F(SqueezeNamesTest, WithoutHardLinksTheFileIsMoved) {
    for (const u32 nth : {1U, 2U}) {  // the first finds the old backup
        OpenScanned(ThreeTransactions());
        WriteText(Backup(), "old backup");
        Fail(SystemCall::kLink, nth, SystemErrorKind::kNotSupported);
        EXPECT_EQ(Squeeze(), RC_OK);
        EXPECT_EQ(ReadBytes(Backup()), OldBytes());
        EXPECT_EQ(WrittenBytes(), NewBytes());
        EXPECT_EQ(WriteTransaction(6, "six"), kNewEnd);
        StopFailing(SystemCall::kLink);
    }
    EXPECT_EQ(CallCount(SystemCall::kRename), 4U);
    EXPECT_EQ(CallCount(SystemCall::kFlushDirectory), 2U);
}

TEST_F(SqueezeNamesTest, ABackupThatCannotBeMovedBackIsNamed) {
    Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported);
    Fail(SystemCall::kRename, 2, SystemErrorKind::kAccessDenied, Repeat::kFromThenOn);
    EXPECT_EQ(Squeeze(), RC_SYSTEM_ERROR);
    EXPECT_EQ(Errors().back(), "Cannot move backup back; sys-err: " + m_denied +
                                   "; storage data is in file: '" + Backup() + "'");
    EXPECT_EQ(ReadBytes(Backup()), OldBytes());
    EXPECT_FALSE(Exists(Path()));
    EXPECT_FALSE(Exists(Temporary()));
}

}  // namespace
}  // namespace k9erepl::test
