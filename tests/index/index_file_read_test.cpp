// Reading the index file: what is valid, and what each defect comes to.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include "index/index_file.h"
#include "index/index_fixture.h"
#include "support/fixed_log.h"
#include "support/new_fault.h"

namespace k9erepl::test {
namespace {

const Entries kThree = {{1, 1056}, {40, 66000}, {95, 131000}};

class IndexFileRead : public ::testing::Test {
  protected:
    u32 Read() { return ReadIndexFile(Path(), &m_content); }
    u32 ReadOf(const std::vector<u8>& bytes) {
        WriteBytes(Path(), bytes);
        return Read();
    }
    std::string Path() const { return m_folder.File("data.edb-idx"); }
    Entries Found() const {
        Entries entries;
        for (const TIndexEntry& entry : m_content.entries) {
            entries.emplace_back(entry.rev, entry.offset);
        }
        return entries;
    }
    bool Warned(const std::string& text) const { return m_log.Has(K9SYS_LOG_WARNING, text); }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    // What a failure must not leave.
    IndexFileContent m_content = {.entries = {{7, 7}}, .blockSize = 7};
};

TEST_F(IndexFileRead, TakesAFileOf32BytesWithCountAndChecksum0ForValidAndEmpty) {
    const std::vector<u8> bytes = IndexFileBytes({});
    ASSERT_EQ(bytes.size(), 32U);
    EXPECT_EQ(ReadOf(bytes), RC_OK);
    EXPECT_TRUE(m_content.entries.empty());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Index file seems to be valid (0 idx, sz 65536)"));
    EXPECT_EQ(m_log.Messages().front().module, "k9eRepl-storage-idx");
}

TEST_F(IndexFileRead, HandsOverEntriesAndBlockSize) {
    EXPECT_EQ(ReadOf(IndexFileBytes(kThree, 4096)), RC_OK);
    EXPECT_EQ(Found(), kThree);
    EXPECT_EQ(m_content.blockSize, 4096U);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Index file seems to be valid (3 idx, sz 4096)"));
    EXPECT_EQ(m_log.Messages().size(), 1U) << m_log;
}

TEST_F(IndexFileRead, TakesTheLowestAndTheHighestValues) {
    const Entries extremes = {{1, 0}, {INT64_MAX, INT64_MAX}};
    EXPECT_EQ(ReadOf(IndexFileBytes(extremes, 0)), RC_OK);
    EXPECT_EQ(Found(), extremes);
    EXPECT_EQ(m_content.blockSize, 0U);
}

TEST_F(IndexFileRead, ReadsMoreThanOneBufferful) {
    Blocks blocks;
    blocks.AddMany(2 * 65536 + 1);
    EXPECT_EQ(ReadOf(IndexFileBytes(blocks.All())), RC_OK);
    EXPECT_EQ(Found(), blocks.All());
    EXPECT_EQ(CallCount(SystemCall::kRead), 4U);
}

TEST_F(IndexFileRead, DoesNotReadTheReservedField) {
    std::vector<u8> bytes = IndexFileBytes(kThree);
    bytes[28] = 0xFF;
    EXPECT_EQ(ReadOf(bytes), RC_OK);
}

TEST_F(IndexFileRead, WarnsOfAMissingFile) {
    EXPECT_EQ(Read(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Warned("Couldn't open file '" + Path() + "'; err 4, syserr " +
                       SysErr(SystemErrorKind::kNotFound)))
        << m_log;
    EXPECT_TRUE(m_content.entries.empty());
    EXPECT_EQ(m_content.blockSize, 0U);
}

TEST_F(IndexFileRead, FailsWithoutMemoryForItsBuffer) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    FailAlloc(1, 1'048'576);
    EXPECT_EQ(Read(), RC_NO_MEMORY);
    EXPECT_EQ(m_log.CodeOf("Couldn't allocate buffer"), RC_NO_MEMORY) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kClose), 1U);
}

TEST_F(IndexFileRead, FailsWithoutMemoryForItsEntries) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    const std::string path = Path();
    const FixedLog log;
    u32 failures = 0;
    for (u32 nth = 1;; ++nth) {
        const FailNthNew fault(nth);
        const u32 rc = ReadIndexFile(path, &m_content);
        if (!fault.Struck()) {
            EXPECT_EQ(rc, RC_OK);
            break;
        }
        EXPECT_EQ(rc, RC_NO_MEMORY);
        EXPECT_TRUE(m_content.entries.empty());
        ++failures;
    }
    EXPECT_GE(failures, 1U);
}

TEST_F(IndexFileRead, WarnsOfAShortHeader) {
    EXPECT_EQ(ReadOf(std::vector<u8>(31)), RC_SHORT_READ);
    EXPECT_TRUE(Warned("Couldn't read header; err 22")) << m_log;
    EXPECT_EQ(ReadOf({}), RC_SHORT_READ);
}

TEST_F(IndexFileRead, WarnsOfAHeaderThatCannotBeRead) {
    FailRead(1);
    EXPECT_EQ(ReadOf(IndexFileBytes(kThree)), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Warned("Couldn't read header; err 4")) << m_log;
    EXPECT_TRUE(m_content.entries.empty());
}

TEST_F(IndexFileRead, RefusesAFileOneByteTooLong) {
    std::vector<u8> bytes = IndexFileBytes(kThree);
    bytes.push_back(0);
    EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Check file header failed")) << m_log;
}

TEST_F(IndexFileRead, RefusesAFileOneByteTooShort) {
    std::vector<u8> bytes = IndexFileBytes(kThree);
    bytes.pop_back();
    EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Check file header failed")) << m_log;
}

TEST_F(IndexFileRead, ComparesTheLengthIn64Bits) {
    std::vector<u8> bytes = IndexFileBytes({});
    bytes[19] = 0x10;  // 0x10000000 entries: 2^32 bytes
    EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Check file header failed")) << m_log;
}

TEST_F(IndexFileRead, AllocatesNothingForEntriesThatAHugeFileOnlyClaims) {
    std::vector<u8> bytes = IndexFileBytes({});
    bytes[19] = 0x10;
    WriteBytes(Path(), bytes);
    ResizeFile(Path(), 32 + (i64{1} << 32));
    EXPECT_EQ(Read(), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Wrong index data")) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kRead), 2U);
}

TEST_F(IndexFileRead, RefusesAnotherMagic) {
    std::vector<u8> bytes = IndexFileBytes(kThree);
    bytes[11] = 'Y';
    EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Check file header failed")) << m_log;
}

TEST_F(IndexFileRead, RefusesAnotherVersion) {
    for (const u8 version : {u8{2}, u8{4}}) {
        std::vector<u8> bytes = IndexFileBytes(kThree);
        bytes[12] = version;
        EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    }
    EXPECT_EQ(m_log.Count("Check file header failed"), 2U) << m_log;
}

TEST_F(IndexFileRead, RefusesAFileWhoseSizeIsUnknown) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    FailFileSize(1);
    EXPECT_EQ(Read(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Warned("Check file header failed")) << m_log;
}

TEST_F(IndexFileRead, WarnsOfEntriesThatCannotBeRead) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    FailRead(2);
    EXPECT_EQ(Read(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(
        Warned("Couldn't read file; err 4; syserr " + SysErr(SystemErrorKind::kInputOutput)))
        << m_log;
}

TEST_F(IndexFileRead, WarnsOfEntriesThatEndTooEarly) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    ShortRead(2, 20);
    EXPECT_EQ(Read(), RC_SHORT_READ);
    EXPECT_EQ(m_log.CountContaining("Couldn't read file; err 22; syserr "), 1U) << m_log;
    EXPECT_TRUE(m_content.entries.empty());
}

TEST_F(IndexFileRead, RefusesARevisionThatComesTwice) {
    EXPECT_EQ(ReadOf(IndexFileBytes({{1, 1056}, {1, 66000}})), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Wrong index data")) << m_log;
}

TEST_F(IndexFileRead, RefusesOffsetsThatDoNotGrow) {
    EXPECT_EQ(ReadOf(IndexFileBytes({{1, 1056}, {2, 1056}})), RC_NOT_FOUND);
    EXPECT_EQ(ReadOf(IndexFileBytes({{1, 1056}, {2, 1055}})), RC_NOT_FOUND);
    EXPECT_EQ(m_log.Count("Wrong index data"), 2U) << m_log;
}

TEST_F(IndexFileRead, RefusesSwappedEntriesThoughTheirChecksumHolds) {
    const Entries swapped = {kThree[1], kThree[0], kThree[2]};
    ASSERT_EQ(IndexChecksum(swapped), IndexChecksum(kThree));
    EXPECT_EQ(ReadOf(IndexFileBytes(swapped)), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Wrong index data")) << m_log;
}

TEST_F(IndexFileRead, RefusesAFirstEntryBelowTheLowestValues) {
    EXPECT_EQ(ReadOf(IndexFileBytes({{0, 1056}})), RC_NOT_FOUND);
    EXPECT_EQ(ReadOf(IndexFileBytes({{1, -1}})), RC_NOT_FOUND);
    EXPECT_EQ(ReadOf(IndexFileBytes({{INT64_MIN, INT64_MAX}})), RC_NOT_FOUND);
    EXPECT_EQ(m_log.Count("Wrong index data"), 3U) << m_log;
}

TEST_F(IndexFileRead, RefusesAWrongChecksum) {
    std::vector<u8> bytes = IndexFileBytes(kThree);
    bytes[24] ^= 1;
    EXPECT_EQ(ReadOf(bytes), RC_NOT_FOUND);
    EXPECT_TRUE(Warned("Wrong checksum")) << m_log;
    EXPECT_TRUE(m_content.entries.empty());
}

TEST_F(IndexFileRead, NoticesEveryFlippedBitThatCounts) {
    const std::vector<u8> good = IndexFileBytes(kThree);
    for (std::size_t bit = 0; bit < good.size() * 8; ++bit) {
        const std::size_t byte = bit / 8;
        if ((byte >= 20 && byte < 24) || (byte >= 28 && byte < 32)) {
            continue;  // block size and reserved field: not checked
        }
        std::vector<u8> bytes = good;
        bytes[byte] = static_cast<u8>(bytes[byte] ^ (1U << (bit % 8)));
        EXPECT_NE(ReadOf(bytes), RC_OK) << "bit " << bit;
    }
}

TEST_F(IndexFileRead, ClosesTheFileOnEveryWay) {
    EXPECT_EQ(ReadOf(IndexFileBytes(kThree)), RC_OK);
    EXPECT_EQ(ReadOf(IndexFileBytes({{0, 0}})), RC_NOT_FOUND);
    EXPECT_EQ(ReadOf({}), RC_SHORT_READ);
    EXPECT_EQ(CallCount(SystemCall::kOpen), 3U);
    EXPECT_EQ(CallCount(SystemCall::kClose), 3U);
}

}  // namespace
}  // namespace k9erepl::test
