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

namespace {

using enum SystemCall;

// In the order in which they happen.
constexpr Step kSteps[] = {
    {"FlushOfTheOldFile", kFlush, 1, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"Offset", kTell, 1, "Cannot get file offset;sys-err {E}", Left::kRaised, true},
    {"SeekToTheHeader", kSeek, 1, "Cannot seek to offset 0;sys-err {E}", Left::kRaised, true},
    {"ReadOfTheHeader", kRead, 1, "Failed to read file header; sys-err {E}", Left::kRaised, true},
    {"SeekBack", kSeek, 2, "Cannot seek to offset 1291;sys-err {E}", Left::kRaised, true},
    {"SeekToTheCommitBlock", kSeek, 3, "Cannot seek to read commit block;offset 1199, sys-err {E}",
     Left::kRaised, true},
    {"ReadOfTheCommitBlock", kRead, 2, "Failed to read block;sys-err {E},offset 1199",
     Left::kRaised, true},
    {"Creation", kOpen, 1, "Cannot create temporary file '{P}.temporary';sys-err {E}",
     Left::kRaised, true},
    {"Owner", kTakeOwnerAndMode, 1, "Cannot create temporary file '{P}.temporary';sys-err {E}",
     Left::kRaised, true},
    {"Lock", kLockFile, 1, "Cannot lock storage file '{P}.temporary';sys-err {E}", Left::kRaised,
     true},
    {"SeekToTheNewStart", kSeek, 4, "Cannot seek to offset 0;sys-err {E}", Left::kRaised, true},
    {"WriteOfTheNewStart", kWrite, 2, "Cannot write file header to file;sys-err {E}", Left::kRaised,
     true},
    {"SeekToTheNewItems", kSeek, 5, "Cannot seek to offset 1056;sys-err {E}", Left::kRaised, true},
    {"FlushOfTheNewStart", kFlush, 2, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"SeekToTheItems", kSeek, 6, "Cannot seek to read file;offset 1171, sys-err {E}", Left::kRaised,
     true},
    {"ReadOfTheItems", kRead, 3, "Failed to read block;sys-err {E},offset 1171", Left::kRaised,
     true},
    {"WriteOfTheItems", kWrite, 3, "Failed to write block;sys-err {E},offset 1171", Left::kRaised,
     true},
    {"FlushOfTheItems", kFlush, 3, "Cannot flush file;sys-err {E}", Left::kRaised, true},
    {"Cut", kSetEnd, 1, "Cannot truncate file: '{P}'; sys-err: {E}", Left::kRaised, false},
    {"FlushOfTheCut", kFlush, 4, "Cannot flush file;sys-err {E}", Left::kOld, false},
    {"Link", kLink, 1, "Cannot create backup file; sys-err: {E}; of file: '{P}'", Left::kOld,
     false},
    {"Opening", kOpen, 2, "Failed to create file '{P}';sys-err {E}", Left::kNew, false},
    {"ReadOfTheNewHeader", kRead, 4, "Failed to read file header;file path {P},sys-err {E}",
     Left::kNew, false},
    {"Size", kFileSize, 1, "Cannot get file size;sys-err {E},file path '{P}'", Left::kNew, false},
    {"OpeningOfTheWriter", kOpen, 3, "Failed to create file '{P}';sys-err {E}", Left::kNew, false},
    {"SeekOfTheWriter", kSeek, 7, "Cannot seek to write pos;offset 1208, sys-err {E}", Left::kNew,
     false},
};

}  // namespace

std::span<const Step> StepsOfEverySqueeze() {
    return kSteps;
}

std::string SqueezeFailure::Filled(std::string text) const {
    const auto fill = [&](const std::string& mark, const std::string& value) {
        if (const std::size_t at = text.find(mark); at != std::string::npos) {
            text.replace(at, mark.size(), value);
        }
    };
    fill("{P}", Path());
    fill("{E}", std::to_string(SystemErrorOf(SystemErrorKind::kInputOutput)));
    return text;
}

FileBytes SqueezeFailure::BytesLeft(Left left) {
    switch (left) {
        case Left::kOld:
            return OldBytes();
        case Left::kRaised:
            return RaisedBytes();
        case Left::kNew:
            break;
    }
    return NewBytes();
}

void SqueezeFailure::ExpectOnlyTheOldFile(Left left) {
    EXPECT_EQ(WrittenBytes(), BytesLeft(left));
    EXPECT_FALSE(Exists(Temporary()));
    EXPECT_FALSE(Exists(Backup()));
}

}  // namespace k9erepl::test
