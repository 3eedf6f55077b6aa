// Items that lie wholly in a read buffer are taken in a loop of their own, by the scan and by the
// enumeration. What is handed out must not depend on where a read ends or a fault lies.
#include "solid/solid_fixture.h"

namespace k9erepl::test {
namespace {

// Records 1 to 9, of 0 to 8 bytes of data, and a commit block behind each third one.
FileBuilder NineRecords() {
    FileBuilder file;
    file.NewFile();
    for (i64 rev = 1; rev <= 9; ++rev) {
        file.Record(rev, std::string(static_cast<std::size_t>(rev - 1), 'x'));
        if (rev % 3 == 0) {
            file.Commit(0, rev);
        }
    }
    return file;
}

class HeldItems : public SolidTest {
  protected:
    // What the scan hands out of `file`, and then the enumeration.
    void Collect(const FileBuilder& file) {
        Open(file, "read_buffers_count=1");
        m_scanned = Scanned();
        m_enumerated = Enumerated(1, 9);
        m_solid.Close();
    }

    Items m_scanned;
    Items m_enumerated;
};

TEST_F(HeldItems, AScanHandsOutTheSameWhereverAReadEnds) {
    const FileBuilder file = NineRecords();
    Collect(file);
    ASSERT_EQ(m_scanned.size(), 9U + 4U);
    Open(file);
    for (u32 got = kSignatureSize; got < file.Size() - kFirstCommitOffset; ++got) {
        ShortRead(1, got);
        ASSERT_EQ(Scanned(), m_scanned) << got;
    }
}

TEST_F(HeldItems, AnEnumerationHandsOutTheSameWhereverAReadEnds) {
    const FileBuilder file = NineRecords();
    Collect(file);
    ASSERT_EQ(m_enumerated.size(), 9U);
    for (u32 got = kSignatureSize; got < file.Size() - kFirstCommitOffset; ++got) {
        Open(file, "read_buffers_count=1");
        ASSERT_EQ(Scan(), RC_OK);
        ShortRead(1, got);
        ASSERT_EQ(Enumerated(1, 9), m_enumerated) << got;
        m_solid.Close();
    }
}

TEST_F(HeldItems, AnEnumerationOfAnyRangeHandsOutThatRange) {
    Collect(NineRecords());
    Open();
    ASSERT_EQ(Scan(), RC_OK);
    for (int from = 1; from <= 9; ++from) {
        for (int to = from; to <= 9; ++to) {
            const Items expected(m_enumerated.begin() + (from - 1), m_enumerated.begin() + to);
            ASSERT_EQ(Enumerated(from, to), expected);
        }
    }
}

TEST_F(HeldItems, AFaultIsFoundBehindAnyNumberOfGoodRecords) {
    const FileBuilder file = NineRecords();
    Collect(file);
    for (std::size_t good = 0; good < 9; ++good) {
        Open(file);
        ASSERT_EQ(Scan(), RC_OK);
        const std::size_t at = m_enumerated[good].find(" at ") + 4;
        const auto offset = static_cast<i64>(std::stoll(m_enumerated[good].substr(at)));
        PatchBytes(Path(), offset + 20, std::vector<u8>(4, 0xFF));  // the data size
        EXPECT_EQ(EnumerateRevs(1, 9), RC_BAD_DATA);
        EXPECT_TRUE(m_completed);
        EXPECT_EQ(m_items, Items(m_enumerated.begin(),
                                 m_enumerated.begin() + static_cast<std::ptrdiff_t>(good)));
        EXPECT_TRUE(m_log.Has("Wrong rec size " + std::to_string(24 + good) +
                              ", data size 4294967295, offset " + std::to_string(offset)))
            << m_log;
        m_solid.Close();
    }
}

// Behind the data a scan looks for anything but zeros, in pieces of a read.
class LookAtTail : public SolidTest {
  protected:
    // The first write after the scan zeroes what the scan has not seen to be zero.
    bool IsZeroedByAWrite() {
        EXPECT_EQ(WriteTransaction(4, "x"), kTwoTransactionsEnd);
        return m_log.CountContaining("Abandoned data was cleared;") == 1;
    }
};

TEST_F(LookAtTail, SeesEveryByteOfEveryPiece) {
    constexpr i64 kSecondRead = kFirstCommitOffset + FileScan::kReadSize;
    constexpr i64 kLastByte = kTwoTransactionsEnd + FileScan::kBufferSize - 1;
    for (const i64 offset : {kTwoTransactionsEnd + 5, kSecondRead - 1, kSecondRead, kLastByte}) {
        Open(TwoTransactions().Zeros(FileScan::kBufferSize));
        PatchBytes(Path(), offset, std::vector<u8>{1});
        Scanned();
        EXPECT_TRUE(IsZeroedByAWrite()) << offset;
        m_solid.Close();
    }
}

TEST_F(LookAtTail, FailsTheScanWhenAPieceCannotBeRead) {
    Open(TwoTransactions().Zeros(2 * FileScan::kReadSize));
    FailRead(2);
    EXPECT_EQ(Scan(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has("Failed to read block;" + SysErr(SystemErrorKind::kInputOutput) +
                          ",offset " + std::to_string(1024 + FileScan::kReadSize)))
        << m_log;
    EXPECT_EQ(Scanned(), TwoTransactionsItems());
}

TEST_F(LookAtTail, TakesWhatAReadDoesNotGiveAsInUse) {
    Open(TwoTransactions().Zeros(2 * FileScan::kReadSize));
    ShortRead(2, 0);
    Scanned();
    EXPECT_TRUE(IsZeroedByAWrite());
}

}  // namespace
}  // namespace k9erepl::test
