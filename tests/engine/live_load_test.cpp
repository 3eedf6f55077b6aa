// Loading a read-only storage again while its writer goes on: what was committed since is served,
// and a file that was started over, squeezed or rolled back is never mixed with what was loaded.
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "engine/load_fixture.h"
#include "platform/file_names.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/log_capture.h"

namespace k9erepl::test {
namespace {

constexpr const char* kLoadAgain =
    "Storage file is not the one that was loaded; load it again;file '";

Strings BlockTexts(u32 first, u32 last) {
    Strings texts;
    for (u32 number = first; number <= last; ++number) {
        texts.push_back(OneBlock("r" + std::to_string(number)));
    }
    return texts;
}

// A writer and a reader of its file, which keeps the two newest of its blocks in memory.
class LiveLoad : public ::testing::Test {
  protected:
    LiveLoad() { Write(1, 5); }

    // Inserts the records first to last, each a block.
    void Write(u32 first, u32 last) {
        for (const std::string& text : BlockTexts(first, last)) {
            ASSERT_EQ(m_writer.Insert(text), RC_OK);
        }
        ASSERT_EQ(m_writer.WaitForWriter(), RC_OK);
    }
    void OpenReader(std::string_view settings = "") {
        m_reader.Use(ReaderSettings(m_writer, SmallCache(2, settings)));
        ASSERT_EQ(m_reader.TryOpenAndLoad(), RC_OK) << m_log;
        m_log.Clear();
    }
    void Clear(i64 rev, u32 mode) {
        ASSERT_EQ(m_writer.Clear(rev, mode), RC_OK);
        ASSERT_EQ(m_writer.WaitForWriter(), RC_OK);
    }
    std::size_t Told() const {
        return m_log.Texts(K9SYS_LOG_WARNING).size() + m_log.Texts(K9SYS_LOG_ERROR).size();
    }
    // Without a warning.
    void ExpectReadsWhatTheWriterHas() {
        m_log.Clear();
        ASSERT_EQ(m_reader.TryLoad(), RC_OK) << m_log;
        EXPECT_EQ(Told(), 0U) << m_log;
        EXPECT_EQ(m_reader.Records(), m_writer.Records());
        EXPECT_EQ(m_reader.NextRev(), m_writer.NextRev());
        EXPECT_EQ(m_reader.OldestRev(), m_writer.OldestRev());
    }

    ScopedSystemCalls m_systemCalls;
    ReadMeter m_meter;
    TestStorage m_writer{SmallCache(2)};
    LogCapture m_log;
    TestStorage m_reader{"", Start::kNothing};
};

TEST_F(LiveLoad, ServesWhatWasCommittedSince) {
    OpenReader();
    for (u32 i = 0; i < 3; ++i) {
        ASSERT_EQ(m_reader.TryLoad(), RC_OK);
    }
    EXPECT_EQ(Told(), 0U) << m_log;
    Write(6, 9);
    EXPECT_EQ(m_reader.Texts(), BlockTexts(1, 5));
    ExpectReadsWhatTheWriterHas();
    ExpectEveryRange(m_reader, ModelOf(m_writer.Records()), 9);
    for (const char* text : {"a", "b"}) {  // in one block
        ASSERT_EQ(m_writer.Insert(text), RC_OK);
        ASSERT_EQ(m_writer.WaitForWriter(), RC_OK);
        ExpectReadsWhatTheWriterHas();
        EXPECT_EQ(StorageAccess::Blocks(m_reader.Object()).Index().size(), 10U);
    }
}

TEST_F(LiveLoad, CostsWhatIsNew) {
    Write(6, 3000);
    OpenReader();
    Write(3001, 3001);
    m_meter.Restart();
    ASSERT_EQ(m_reader.TryLoad(), RC_OK);
    EXPECT_EQ(m_reader.NextRev(), 3002);
    EXPECT_LT(m_meter.Bytes(), 4096U);
    m_reader.Close();
    m_writer.Reopen(SmallCache(2, "file_size_delta=16;"));  // a file that is sized ahead
    OpenReader();
    Write(3002, 3002);
    m_meter.Restart();
    ASSERT_EQ(m_reader.TryLoad(), RC_OK);
    EXPECT_EQ(m_reader.NextRev(), 3003);
    EXPECT_LT(m_meter.Bytes(), 256U * 1024);
}

TEST_F(LiveLoad, ReadsTheMarksAgain) {
    OpenReader();
    ASSERT_EQ(K9eReplStorageSetLifenum(m_writer.Handle(), 7), RC_OK);
    ASSERT_EQ(m_writer.Clear(3, K9EREPL_CLEAR_MARK), RC_OK);
    EXPECT_EQ(m_reader.Lifenum(), 0U);
    ASSERT_EQ(m_reader.TryLoad(), RC_OK);
    EXPECT_EQ(m_reader.Lifenum(), 7U);
    EXPECT_EQ(m_reader.RevisionMark(), 3);
}

TEST_F(LiveLoad, DropsWhatWasClearedLogically) {
    OpenReader();
    for (const i64 rev : {2, 5}) {
        Clear(rev, K9EREPL_CLEAR_LOGICAL);
        ExpectReadsWhatTheWriterHas();
    }
    EXPECT_EQ(m_reader.Texts(), BlockTexts(5, 5));
    Write(6, 7);
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, ASqueezedFileStaysReadableUntilTheNext) {
    for (const u32 mode : {K9EREPL_CLEAR_SQUEEZE, K9EREPL_CLEAR_SQUEEZE_BACKUP}) {
        OpenReader();
        const SeenRecords before = m_reader.Records();
        Clear(m_writer.OldestRev() + 2, mode);
        EXPECT_EQ(m_reader.Records(), before);
        ExpectReadsWhatTheWriterHas();
        m_reader.Close();
    }
}

TEST_F(LiveLoad, AFileThatWasStartedOverEndsTheEnumeration) {
    for (const bool truncates : {false, true}) {
        OpenReader();
        ASSERT_EQ(truncates ? m_writer.Truncate() : m_writer.ClearAll(0), RC_OK);
        SeenRecords records;
        EXPECT_EQ(m_reader.Enumerate(&records), RC_WRONG_STATE);
        EXPECT_TRUE(records.empty());
        const std::string text = kLoadAgain + m_writer.Path() + "'";
        EXPECT_EQ(m_log.CodeOf(text), RC_WRONG_STATE) << m_log;
        EXPECT_EQ(m_reader.State(), StorageState::kOpen);
        ExpectReadsWhatTheWriterHas();
        Write(1, 5);
        ExpectReadsWhatTheWriterHas();
        m_reader.Close();
    }
}

TEST_F(LiveLoad, AFileThatIsStartedOverMeanwhileEndsTheEnumeration) {
    OpenReader();
    Revs seen;
    const u32 rc = EnumerateWith(m_reader, 1, 5, [&](const K9eReplRec& rec) {
        seen.push_back(i64{rec.rev});
        if (rec.rev == 1) {
            EXPECT_EQ(m_writer.Truncate(), RC_OK);
            Write(11, 15);
        }
        return RC_OK;
    });
    // What one read of the file gave is whole; what memory has, too.
    EXPECT_EQ(rc, RC_OK);
    EXPECT_EQ(seen, RevRange(1, 5));
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, DropsWhatTheWriterTookBack) {
    SKIP_WHEN_ASYNC("a flush to the disk at each commit");
    m_writer.Reopen(SmallCache(2, "force_flush=yes;"));
    OpenReader();
    FailFlush(1, SystemErrorKind::kInputOutput);
    ASSERT_EQ(m_writer.Begin(), RC_OK);
    ASSERT_EQ(m_writer.Insert(OneBlock("lost")), RC_OK);
    ASSERT_EQ(m_writer.Commit(), RC_SYSTEM_ERROR);
    ASSERT_EQ(m_reader.TryLoad(), RC_OK);
    EXPECT_EQ(m_reader.NextRev(), 7) << "the flush is in the file until it is rolled back";
    ASSERT_EQ(m_writer.Rollback(), RC_OK);
    Write(6, 8);
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, IsRefusedInsideAnEnumeration) {
    OpenReader();
    Write(6, 6);
    const Revs seen = Walk(m_reader, [&](i64) { EXPECT_EQ(m_reader.TryLoad(), RC_ALREADY); });
    EXPECT_EQ(seen, RevRange(1, 5));
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, KeepsWhatWasLoadedWhenTheFileCannotBeOpened) {
    OpenReader();
    Fail(SystemCall::kOpen, 1, SystemErrorKind::kAccessDenied);
    EXPECT_EQ(m_reader.TryLoad(), RC_SYSTEM_ERROR);
    EXPECT_EQ(m_reader.State(), StorageState::kOpen);
    EXPECT_EQ(m_reader.Texts(), BlockTexts(1, 5));
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, ThatFailsHalfWayMayBeTriedAgain) {
    OpenReader();
    Write(6, 9);
    u32 succeeded = 0;
    for (u32 nth = 1; succeeded < 2; ++nth) {
        ASSERT_LT(nth, 200U);
        Fail(SystemCall::kRead, nth);
        const u32 rc = m_reader.TryLoad();
        StopFailing(SystemCall::kRead);
        succeeded += rc == RC_OK ? 1 : 0;
        ASSERT_TRUE(rc == RC_OK || rc == RC_SYSTEM_ERROR || rc == RC_FILE_CORRUPT) << rc;
        ASSERT_EQ(m_reader.State() == StorageState::kOpen, rc == RC_OK || m_reader.NextRev() > 1)
            << nth;
    }
    ExpectReadsWhatTheWriterHas();
}

TEST_F(LiveLoad, OfADamagedFileMayBeTriedAgain) {
    OpenReader();
    m_writer.Close();
    const std::vector<u8> bytes = ReadBytes(m_writer.Path());
    for (const i64 place : {kFirstItemOffset, kFirstCommitOffset}) {
        std::vector<u8> damaged = bytes;
        damaged[static_cast<std::size_t>(place)] ^= 0xFF;
        WriteBytes(m_writer.Path(), damaged);
        if (place == kFirstCommitOffset) {
            EXPECT_EQ(m_reader.TryLoad(), RC_FILE_CORRUPT);
            EXPECT_EQ(m_reader.State(), StorageState::kClosed);
        } else {
            SeenRecords records;
            EXPECT_EQ(m_reader.Enumerate(&records), RC_BAD_DATA);
        }
        WriteBytes(m_writer.Path(), bytes);
        ASSERT_EQ(m_reader.TryLoad(), RC_OK);
        EXPECT_EQ(m_reader.Texts(), BlockTexts(1, 5));
    }
}

// --- A reader that follows its writer -----------------------------------------------------------

constexpr u32 kTransactions = 400;
constexpr u32 kRecordsMost = 12;

// Transaction n has 1 + n % 12 records. Each says n, how many records its transaction has, and is
// filled with one letter of n.
std::string TextOf(u32 number) {
    std::string text = std::to_string(number) + " " + std::to_string(1 + number % kRecordsMost);
    text.resize(40 + number * 37 % 6000, static_cast<char>('a' + number % 26));
    return text;
}

// What is wrong with the records of a moment; nothing is right.
std::string WhatIsWrong(const SeenRecords& records, bool wholeFromTheBeginning) {
    std::size_t at = 0;
    while (at < records.size()) {
        const u32 number = static_cast<u32>(std::stoul(records[at].data));
        const std::string expected = TextOf(number);
        std::size_t same = at;
        while (same < records.size() && records[same].data == expected) {
            ++same;
        }
        const bool mayBeCut = at == 0 && !wholeFromTheBeginning;
        const std::size_t count = 1 + number % kRecordsMost;
        if (same == at || (same - at != count && !(mayBeCut && same - at < count))) {
            return "transaction " + std::to_string(number) + " has " + std::to_string(same - at);
        }
        at = same;
    }
    return "";
}

class LiveReading : public ::testing::Test {
  protected:
    void WriteTransaction(u32 number) {
        ASSERT_EQ(m_writer.Begin(), RC_OK);
        for (u32 i = 0; i <= number % kRecordsMost; ++i) {
            ASSERT_EQ(m_writer.Insert(TextOf(number)), RC_OK);
        }
        ASSERT_EQ(m_writer.Commit(), RC_OK);
    }
    // Writes everything, with `remove` between transactions, while a reader follows.
    void Follow(const std::function<void(u32 number)>& remove, bool wholeFromTheBeginning) {
        m_reader.Use(ReaderSettings(m_writer, kSettings));
        ASSERT_EQ(m_reader.TryOpen(), RC_OK);
        std::atomic<bool> ended{false};
        std::thread writing([&] {
            for (u32 number = 1; number <= kTransactions; ++number) {
                WriteTransaction(number);
                remove(number);
            }
            ended = true;
        });
        while (!ended && !HasFatalFailure()) {
            LoadAndLook(wholeFromTheBeginning);
        }
        writing.join();
        ASSERT_EQ(m_writer.WaitForWriter(), RC_OK);
        LoadAndLook(wholeFromTheBeginning);
        EXPECT_EQ(m_reader.Records(), m_writer.Records());
    }
    void LoadAndLook(bool wholeFromTheBeginning) {
        const u32 loaded = m_reader.TryLoad();
        // The writer was faster each time, or a squeeze has taken the name away for a moment.
        if (loaded == RC_WRONG_STATE ||
            (loaded == RC_SYSTEM_ERROR && !platform::kOpenFilesCanBeRenamed)) {
            return;
        }
        ASSERT_EQ(loaded, RC_OK);
        SeenRecords records;
        const u32 rc = m_reader.Enumerate(&records);
        ASSERT_TRUE(rc == RC_OK || rc == RC_WRONG_STATE) << rc;
        if (rc == RC_OK) {
            ASSERT_EQ(WhatIsWrong(records, wholeFromTheBeginning), "");
        }
    }

    static constexpr const char* kSettings =
        "flush_mode=PerTrans;flush_trans_num=1;block_size=65536;cache_type=Last2;";
    TestStorage m_writer{std::string(kSettings) + "file_size_delta=1;"};
    TestStorage m_reader{"", Start::kNothing};
};

TEST_F(LiveReading, FollowsSqueezes) {
    Follow(
        [this](u32 number) {
            if (number % 10 == 0) {
                const u32 mode = K9EREPL_CLEAR_SQUEEZE_BACKUP;
                ASSERT_EQ(m_writer.Clear(m_writer.NextRev() - 50, mode), RC_OK);
            }
        },
        false);
}

TEST_F(LiveReading, FollowsWhatStartsTheFileOver) {
    Follow(
        [this](u32 number) {
            if (number % 7 == 0) {
                ASSERT_EQ(number % 2 == 0 ? m_writer.Truncate() : m_writer.ClearAll(0), RC_OK);
            }
        },
        true);
}

}  // namespace

}  // namespace k9erepl::test
