// The worked example of the index file's document is what the code writes.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <fstream>
#include <string>

#include "index/index_file.h"
#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

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

class IndexDocument : public IndexObjectTest {
  protected:
    // The three blocks of the document's example.
    void SaveExample() {
        MakeStarted();
        m_blocks.Add(1, 1056).Add(612, 67'088).Add(1'226, 133'040);
        ASSERT_EQ(SaveSync(), RC_OK);
    }
};

TEST_F(IndexDocument, ShowsTheBytesThatASaveWrites) {
    SaveExample();
    EXPECT_EQ(DocumentedBytes(), FileBytes());
}

TEST_F(IndexDocument, ShowsAFileThatTheReaderTakes) {
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
