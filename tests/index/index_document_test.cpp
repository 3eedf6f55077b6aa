// The worked example of the index file's document is what the code writes.
#include <gtest/gtest.h>
#include <k9erepl/storage.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "index/index_file.h"
#include "index/index_fixture.h"

namespace k9erepl::test {
namespace {

// The bytes of the document's dump: lines of an offset in eight digits and up to 16 bytes.
std::vector<u8> DocumentedBytes() {
    std::ifstream document(K9EREPL_INDEX_DOCUMENT);
    EXPECT_TRUE(document.is_open()) << K9EREPL_INDEX_DOCUMENT;
    const std::regex dumpLine("^([0-9a-f]{8})((?:  ?[0-9a-f]{2}){1,16})(?:  .*)?$");
    std::vector<u8> bytes;
    for (std::string line; std::getline(document, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, dumpLine)) {
            continue;
        }
        EXPECT_EQ(std::stoul(parts[1], nullptr, 16), bytes.size()) << line;
        std::istringstream pairs(parts[2]);
        for (unsigned value = 0; pairs >> std::hex >> value;) {
            bytes.push_back(static_cast<u8>(value));
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
