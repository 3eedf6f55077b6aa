// The words of the squeeze's tests; see the header.
#include "solid/squeeze_fixture.h"

#include <algorithm>

namespace k9erepl::test {

FileBuilder ThreeTransactions() {
    FileBuilder file;
    file.Header(7, 8).Commit(0, 0);
    file.Record(1, "one").Record(2, "two").Commit(0, 2);
    file.Record(3, "three").Record(4, "four").Commit(0, 4);
    file.Record(5, "five").Commit(0, 5);
    return file;
}

SqueezeTest::SqueezeTest() {
    OpenScanned(ThreeTransactions());
}

void SqueezeTest::OpenScanned(const FileBuilder& file, const std::string& settings) {
    m_solid.Close();
    Open(file, settings);
    ASSERT_EQ(Scan(), RC_OK);
    m_items.clear();
    m_log.Clear();
    SetTimeStampCounter(kClearSequence, 1);
}

SqueezeRequest SqueezeTest::Request(bool keepBackup) const {
    return {.clearRev = kClearRev,
            .copyFrom = kCopyFrom,
            .commitOffset = kCommitOffset,
            .keepBackup = keepBackup};
}

u32 SqueezeTest::SqueezeWith(const std::function<u32()>& beforeReplace, bool keepBackup) {
    SqueezeRequest request = Request(keepBackup);
    request.beforeReplace = [](void* ctx) -> u32 {
        return (*static_cast<const std::function<u32()>*>(ctx))();
    };
    request.ctx = const_cast<std::function<u32()>*>(&beforeReplace);
    return Squeeze(request);
}

FileBytes SqueezeTest::RaisedBytes() {
    FileBuilder file = ThreeTransactions();
    TCommitBlock block = NewCommitBlock(kClearSequence, 5);
    block.prevSequence = file.LastSequence();
    block.clearRev = kClearRev;
    return file.RawCommit(block).Bytes();
}

FileBytes SqueezeTest::NewBytes() {
    // The second transaction's commit block, the third of the file, links to the second of it.
    const TCommitBlock first = NewCommitBlock(FileBuilder::kFirstSequence + 1, kClearRev);
    const FileBytes old = RaisedBytes();
    return FileBuilder()
        .Header(kLifenum, kClearOldRev)
        .RawCommit(first)
        .Raw(old.data() + kCopyFrom, old.size() - kCopyFrom)
        .Bytes();
}

Items SqueezeTest::NewItems() {
    return {"commit 0 4", "record 4 at 1056: four",
            "commit 0 4", "record 5 at 1116: five",
            "commit 0 5", "commit 4 5"};
}

void SqueezeTest::ExpectNothingLost() {
    m_solid.Close();
    Open();
    EXPECT_EQ(Scan(), RC_OK) << m_log;
    EXPECT_EQ(FlushedRev(), 5);
    WriteTransaction(6, "six");
    Items records = ItemsOfFile();
    std::erase_if(records, [](const std::string& item) { return item.starts_with("commit"); });
    ASSERT_GE(records.size(), 3U);
    const std::size_t fourth = records.size() - 3;
    EXPECT_TRUE(records[fourth].ends_with(": four")) << records[fourth];
    EXPECT_TRUE(records[fourth + 1].ends_with(": five")) << records[fourth + 1];
    EXPECT_TRUE(records[fourth + 2].ends_with(": six")) << records[fourth + 2];
}

Texts SqueezeTest::LoggedTexts() const {
    Texts texts = SolidTest::LoggedTexts();
    std::erase_if(texts, [](const std::string& text) {
        return text.starts_with("Write to Handle") || text.starts_with("Written data size");
    });
    return texts;
}

}  // namespace k9erepl::test
