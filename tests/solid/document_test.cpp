// The worked examples of the storage file's document are what the code writes.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>

#include "solid/solid_fixture.h"
#include "solid/storage_file_admin.h"

namespace k9erepl::test {
namespace {

using Bytes = std::vector<u8>;

std::optional<u32> Hex(const std::string& text, std::size_t digits) {
    if (text.size() != digits || text.find_first_not_of("0123456789abcdef") != std::string::npos) {
        return std::nullopt;
    }
    return static_cast<u32>(std::stoul(text, nullptr, 16));
}

// One line of the dump: eight digits of offset, two blanks, bytes, two blanks, a note. "00 * 1000"
// stands for that many equal bytes.
struct DumpLine {
    u32 offset;
    Bytes bytes;
};

std::optional<DumpLine> ParseLine(const std::string& line) {
    const std::optional<u32> offset = Hex(line.substr(0, 8), 8);
    if (!offset || line.size() < 12 || line.substr(8, 2) != "  ") {
        return std::nullopt;
    }
    std::istringstream words(line.substr(10, line.find("  ", 10) - 10));
    DumpLine result{*offset, {}};
    for (std::string word; words >> word;) {
        if (word == "*") {
            std::size_t count = 0;
            words >> count;
            result.bytes.resize(count, result.bytes.at(0));
        } else {
            const std::optional<u32> byte = Hex(word, 2);
            EXPECT_TRUE(byte.has_value()) << line;
            result.bytes.push_back(static_cast<u8>(byte.value_or(0)));
        }
    }
    return result;
}

// The dumps of the document, one after the other; each begins at offset 0.
std::vector<Bytes> DocumentedFiles() {
    std::ifstream document(K9EREPL_STORAGE_DOCUMENT);
    EXPECT_TRUE(document.is_open()) << K9EREPL_STORAGE_DOCUMENT;
    std::vector<Bytes> files;
    for (std::string line; std::getline(document, line);) {
        if (const std::optional<DumpLine> part = ParseLine(line)) {
            if (part->offset == 0) {
                files.emplace_back();
            }
            Bytes& bytes = files.back();
            EXPECT_EQ(part->offset, bytes.size()) << line;
            bytes.insert(bytes.end(), part->bytes.begin(), part->bytes.end());
        }
    }
    return files;
}

class StorageDocument : public SolidTest {
  protected:
    StorageDocument() { EXPECT_EQ(m_files.size(), 2U); }

    // The steps of the document's example.
    void WriteExample() {
        SetTimeStampCounter(0x12'E0A1'3C01, 1);
        ASSERT_EQ(CreateStorageFile(Conn().c_str(), 0), RC_OK);
        Open();
        ASSERT_EQ(Scan(), RC_OK);
        ASSERT_EQ(m_solid.SetLifenum(7), RC_OK);
        ASSERT_EQ(m_solid.BeginTransaction(), RC_OK);
        WriteRecord(1, "apple", false, 0xC0FFEE);
        WriteRecord(2, "");
        ASSERT_EQ(m_solid.Commit(), RC_OK);
        WriteTransaction(3, "fig");
    }

    const std::vector<Bytes> m_files = DocumentedFiles();
    const Items m_exampleItems = {"commit 0 0", "record 1 at 1056: apple", "record 2 at 1085: ",
                                  "commit 0 2", "record 3 at 1141: fig",   "commit 0 3"};
};

TEST_F(StorageDocument, ShowsTheBytesThatTheCodeWrites) {
    WriteExample();
    EXPECT_EQ(m_files.at(0).size(), 1200U);
    EXPECT_EQ(m_files.at(0), WrittenBytes());
}

TEST_F(StorageDocument, ShowsTheBytesThatASqueezeLeaves) {
    WriteExample();
    i64 shift = 0;
    EXPECT_EQ(
        m_solid.Squeeze(
            {.clearRev = 3, .copyFrom = 0x475, .commitOffset = 0x490, .keepBackup = true}, &shift),
        RC_OK);
    EXPECT_EQ(m_files.at(1), WrittenBytes());
    EXPECT_EQ(m_files.at(0), ReadBytes(Path() + ".backup"));
}

TEST_F(StorageDocument, ShowsAFileThatTheReaderTakes) {
    WriteBytes(Path(), m_files.at(0));
    Open();
    EXPECT_EQ(Scanned(), m_exampleItems);
    u32 lifenum = 0;
    EXPECT_EQ(m_solid.GetLifenum(&lifenum), RC_OK);
    EXPECT_EQ(lifenum, 7U);
}

}  // namespace
}  // namespace k9erepl::test
