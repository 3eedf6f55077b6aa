// The index file: where it lies for a connection string, reading it with what each defect comes to,
// deleting it; and the worked example of its document, which is what the code writes.
#include "index/index_file.h"

#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <fstream>
#include <ostream>
#include <string>

#include "index/index_file_name.h"
#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

struct Named {
    const char* connStr;
    const char* path;
};

TEST(IndexFileName, IsIndexFileOrThatOfTheStorageWithAnExtensionPut) {
    constexpr Named kNames[] = {
        {"file=data.edb;index_file=/fast/other", "/fast/other"},
        {"index_file=a.idx", "a.idx"},
        {"index_file=;file=data.edb", "data.edb-idx"},
        {"file=data.edb", "data.edb-idx"},
        {"file=data.2026.repl", "data.2026.repl-idx"},
        {"file=data", "data.edb-idx"},
        {"file=data.", "data.edb-idx"},
        {"file=dir/.data", "dir/.data-idx"},  // a leading dot begins an extension
        {"file=x.dir/data", "x.dir/data.edb-idx"},
        {"file=x.dir\\data", "x.dir\\data.edb-idx"},
        {"file=a/b.c\\data", "a/b.c\\data.edb-idx"},
        {"file=a\\b.c/data", "a\\b.c/data.edb-idx"},
        {"file=a.b/c\\data.edb", "a.b/c\\data.edb-idx"},
        {"flush_mode=NoFlush;file=:memory:", ""},
        {"file=:MEMORY:", ""},
        {"file=:Memory:;index_file=a.idx", ""},
        {"flush_mode=PerTrans", ""},
        {"", ""},
    };
    for (const Named& named : kNames) {
        EXPECT_EQ(IndexFileName(named.connStr), named.path) << named.connStr;
    }
}

const Entries kThree = {{1, 1056}, {40, 66000}, {95, 131000}};

class IndexFileRead : public ::testing::Test {
  protected:
    u32 Read() { return ReadIndexFile(Path(), &m_content); }
    u32 ReadOf(const std::vector<u8>& bytes) {
        WriteBytes(Path(), bytes);
        return Read();
    }
    // Bytes that are answered with the code and this warning, and leave nothing.
    void ExpectRefused(const std::vector<u8>& bytes, u32 code, const std::string& warning) {
        m_log.Clear();
        m_content = {.entries = {{7, 7}}, .blockSize = 7};
        EXPECT_EQ(ReadOf(bytes), code);
        EXPECT_EQ(m_log.Texts(K9SYS_LOG_WARNING), std::vector{warning});
        EXPECT_TRUE(m_content.entries.empty());
        EXPECT_EQ(m_content.blockSize, 0U);
        EXPECT_EQ(CallCount(SystemCall::kOpen), CallCount(SystemCall::kClose));
    }
    // The bytes of three entries with one byte changed.
    static std::vector<u8> Changed(std::size_t at, u8 byte) {
        std::vector<u8> bytes = IndexFileBytes(kThree);
        bytes.at(at) = byte;
        return bytes;
    }
    std::string Path() const { return m_folder.File("data.edb-idx"); }
    std::string ConnStr() const { return "file=" + m_folder.File("data.edb"); }
    Entries Found() const {
        Entries entries;
        for (const TIndexEntry& entry : m_content.entries) {
            entries.emplace_back(entry.rev, entry.offset);
        }
        return entries;
    }

    ScopedSystemCalls m_systemCalls;
    TempFolder m_folder;
    LogCapture m_log;
    IndexFileContent m_content;
};

TEST_F(IndexFileRead, HandsOverEntriesAndBlockSize) {
    ASSERT_EQ(IndexFileBytes({}).size(), 32U);
    EXPECT_EQ(ReadOf(IndexFileBytes({})), RC_OK);
    EXPECT_TRUE(m_content.entries.empty());
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Index file seems to be valid (0 idx, sz 65536)"));
    EXPECT_EQ(m_log.Messages().front().module, "k9eRepl-storage-idx");
    m_log.Clear();
    std::vector<u8> bytes = IndexFileBytes(kThree, 4096);
    bytes[28] = 0xFF;  // reserved and not read
    EXPECT_EQ(ReadOf(bytes), RC_OK);
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

TEST_F(IndexFileRead, WarnsOfAMissingFile) {
    EXPECT_EQ(Read(), RC_SYSTEM_ERROR);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Couldn't open file '" + Path() + "'; err 4, syserr " +
                                                 SysErr(SystemErrorKind::kNotFound)))
        << m_log;
}

TEST_F(IndexFileRead, FailsWithoutMemoryForItsBuffer) {
    WriteBytes(Path(), IndexFileBytes(kThree));
    FailAlloc(1, 1'048'576);
    EXPECT_EQ(Read(), RC_NO_MEMORY);
    EXPECT_EQ(m_log.CodeOf("Couldn't allocate buffer"), RC_NO_MEMORY) << m_log;
}

TEST_F(IndexFileRead, WarnsOfWhatCannotBeRead) {
    ExpectRefused(std::vector<u8>(31), RC_SHORT_READ, "Couldn't read header; err 22");
    ExpectRefused({}, RC_SHORT_READ, "Couldn't read header; err 22");
    FailRead(1);
    ExpectRefused(IndexFileBytes(kThree), RC_SYSTEM_ERROR, "Couldn't read header; err 4");
    FailFileSize(1);
    ExpectRefused(IndexFileBytes(kThree), RC_SYSTEM_ERROR, "Check file header failed");
    FailRead(2);
    ExpectRefused(IndexFileBytes(kThree), RC_SYSTEM_ERROR,
                  "Couldn't read file; err 4; syserr " + SysErr(SystemErrorKind::kInputOutput));
    ShortRead(2, 20);
    EXPECT_EQ(ReadOf(IndexFileBytes(kThree)), RC_SHORT_READ);
    EXPECT_EQ(m_log.CountContaining("Couldn't read file; err 22; syserr "), 1U) << m_log;
    EXPECT_TRUE(m_content.entries.empty());
}

TEST_F(IndexFileRead, RefusesAnotherHeaderOrLength) {
    std::vector<u8> tooLong = IndexFileBytes(kThree);
    tooLong.push_back(0);
    std::vector<u8> tooShort = IndexFileBytes(kThree);
    tooShort.pop_back();
    std::vector<u8> claiming = IndexFileBytes({});
    claiming[19] = 0x10;  // 0x10000000 entries: 2^32 bytes
    for (const std::vector<u8>& bytes :
         {tooLong, tooShort, claiming, Changed(11, 'Y'), Changed(12, 2), Changed(12, 4)}) {
        ExpectRefused(bytes, RC_NOT_FOUND, "Check file header failed");
    }
}

TEST_F(IndexFileRead, AllocatesNothingForEntriesThatAHugeFileOnlyClaims) {
    std::vector<u8> bytes = IndexFileBytes({});
    bytes[19] = 0x10;
    WriteBytes(Path(), bytes);
    ResizeFile(Path(), 32 + (i64{1} << 32));
    EXPECT_EQ(Read(), RC_NOT_FOUND);
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_WARNING, "Wrong index data")) << m_log;
    EXPECT_EQ(CallCount(SystemCall::kRead), 2U);
}

TEST_F(IndexFileRead, RefusesEntriesThatDoNotGrowOrBeginTooLowAndAWrongChecksum) {
    const Entries swapped = {kThree[1], kThree[0], kThree[2]};
    ASSERT_EQ(IndexChecksum(swapped), IndexChecksum(kThree));
    for (const Entries& entries :
         {swapped, Entries{{1, 1056}, {1, 66000}}, Entries{{1, 1056}, {2, 1056}},
          Entries{{1, 1056}, {2, 1055}}, Entries{{0, 1056}}, Entries{{1, -1}},
          Entries{{INT64_MIN, INT64_MAX}}}) {
        ExpectRefused(IndexFileBytes(entries), RC_NOT_FOUND, "Wrong index data");
    }
    ExpectRefused(Changed(24, static_cast<u8>(IndexFileBytes(kThree)[24] ^ 1)), RC_NOT_FOUND,
                  "Wrong checksum");
}

using IndexFileDelete = IndexFileRead;

TEST_F(IndexFileDelete, RemovesTheFileAndSaysSo) {
    WriteBytes(Path(), IndexFileBytes({}));
    FailRemove(1);
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_SYSTEM_ERROR);
    EXPECT_TRUE(Exists(Path()));
    const std::string text = "Cannot delete index file;path '" + Path() + "'";
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_ERROR, text)) << m_log;
    EXPECT_EQ(m_log.CodeOf(text), RC_SYSTEM_ERROR);
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_OK);
    EXPECT_FALSE(Exists(Path()));
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "Deleted index file '" + Path() + "'")) << m_log;
    m_log.Clear();
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_OK);
    EXPECT_EQ(m_log.Messages().size(), 1U) << m_log;
    EXPECT_TRUE(m_log.Has(K9SYS_LOG_INFO, "No index file to delete;path '" + Path() + "'"))
        << m_log;
}

TEST_F(IndexFileDelete, LeavesAStorageFileAlone) {
    WriteText(Path(), "K9_EREPL\3" + std::string(1055, '\0'));
    EXPECT_EQ(DeleteIndexFile(ConnStr().c_str()), RC_INVALID_ARG);
    EXPECT_TRUE(Exists(Path()));
    EXPECT_EQ(
        m_log.CodeOf("Index file is a storage file, nothing was changed;path '" + Path() + "'"),
        RC_INVALID_ARG)
        << m_log;
}

TEST_F(IndexFileDelete, DoesNothingWhereThereIsNoIndexFile) {
    for (const std::string file : {"file=:memory:", "file=:MEMORY:", "file=:Memory:"}) {
        WriteBytes(Path(), IndexFileBytes({}));
        EXPECT_EQ(DeleteIndexFile(file.c_str()), RC_OK);
        EXPECT_EQ(DeleteIndexFile((file + ";index_file=" + Path()).c_str()), RC_OK);
        EXPECT_TRUE(Exists(Path()));
    }
    EXPECT_TRUE(m_log.Messages().empty()) << m_log;
}

constexpr std::size_t kBytesInLine = 16;

bool IsHex(const std::string& text) {
    return text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

// Where byte `i` of a line of the dump stands.
std::size_t ColumnOf(std::size_t i) {
    return 10 + 3 * i + (i < 8 ? 0 : 1);
}

// The bytes of the document's dump. Its lines begin with their offset in eight digits.
std::vector<u8> DocumentedBytes() {
    std::ifstream document(K9EREPL_INDEX_DOCUMENT);
    EXPECT_TRUE(document.is_open()) << K9EREPL_INDEX_DOCUMENT;
    std::vector<u8> bytes;
    for (std::string line; std::getline(document, line);) {
        if (line.size() < ColumnOf(kBytesInLine) || !IsHex(line.substr(0, 8))) {
            continue;
        }
        EXPECT_EQ(std::stoul(line.substr(0, 8), nullptr, 16), bytes.size()) << line;
        for (std::size_t i = 0; i < kBytesInLine; ++i) {
            const std::string digits = line.substr(ColumnOf(i), 2);
            EXPECT_TRUE(IsHex(digits)) << line;
            bytes.push_back(static_cast<u8>(std::stoul(digits, nullptr, 16)));
        }
    }
    return bytes;
}

using IndexDocument = IndexObjectTest;

TEST_F(IndexDocument, ShowsTheBytesThatASaveWritesAndTheReaderTakes) {
    MakeStarted();
    m_blocks.Add(1, 1056).Add(612, 67'088).Add(1'226, 133'040);
    ASSERT_EQ(SaveSync(), RC_OK);
    EXPECT_EQ(DocumentedBytes(), FileBytes());
    m_index.reset();
    WriteBytes(Path(), DocumentedBytes());
    IndexFileContent content;
    EXPECT_EQ(ReadIndexFile(Path(), &content), RC_OK);
    EXPECT_EQ(content.blockSize, 65536U);
    ASSERT_EQ(content.entries.size(), 3U);
    EXPECT_EQ(i64{content.entries[2].rev}, 1'226);
    EXPECT_EQ(i64{content.entries[2].offset}, 133'040);
}

}  // namespace
}  // namespace k9erepl::test
