// The vocabulary of the writers' tests; see writer_fixture.h.
#include "writers/writer_fixture.h"
#include "support/file_bytes.h"

#include <cstring>

namespace k9erepl::test {

namespace {

template <typename T>
Bytes BytesOfObject(const T& object) {
    Bytes bytes(sizeof(T));
    std::memcpy(bytes.data(), &object, sizeof(T));
    return bytes;
}

Bytes NewFile() {
    return BytesOfObject(NewFileHeader()) + BytesOfObject(NewCommitBlock(kFirstSequence, 0)) +
           Bytes(kNewFileSize - kFirstItemOffset);
}

}  // namespace

Bytes BytesOf(const std::string& text) {
    return {text.begin(), text.end()};
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes Record(i64 rev, u32 dataSize, u8 fill) {
    const TRecordHead head{kRecordSignature, dataSize + kRecordHeadSize, rev, 0, dataSize};
    return BytesOfObject(head) + Bytes(dataSize, fill);
}

std::string Items(const std::string& path) {
    const Bytes file = ReadBytes(path) + Bytes(kCommitBlockSize);
    std::string items;
    u32 sequence = 0;
    std::size_t at = kFirstCommitOffset;
    while (at + kCommitBlockSize <= file.size()) {
        const auto block = LoadUnaligned<TCommitBlock>(&file[at]);
        const auto record = LoadUnaligned<TRecordHead>(&file[at]);
        if (block.signature == kCommitSignature && block.prevSequence == sequence) {
            items += " C" + std::to_string(block.commitRev);
            sequence = block.sequence;
            at += kCommitBlockSize;
        } else if (record.signature == kRecordSignature) {
            items += " R" + std::to_string(record.rev);
            at += record.size;
        } else {
            break;
        }
    }
    return items.empty() ? items : items.substr(1);
}

std::string SysErr(SystemErrorKind kind) {
    return "sys-err " + std::to_string(platform::SystemErrorOf(kind));
}

bool SetEndMovingThePointer(platform::NativeFile file, i64 size) {
    const platform::SystemCalls& native = platform::NativeSystemCalls();
    return native.setFileEnd(file, size) && native.seekFile(file, size) == size;
}

WriterTest::WriterTest() {
    WriteBytes(m_path, NewFile());
    m_state.path = m_path;
    m_state.fileSize = kNewFileSize;
    m_state.lastCommitSequence = kFirstSequence;
}

SyncStorageWriter& WriterTest::Writer() {
    if (m_writer == nullptr) {
        m_writer = std::make_unique<SyncStorageWriter>(&m_state);
        EXPECT_EQ(m_writer->SetWritePos(kStart, true), RC_OK);
    }
    return *m_writer;
}

u32 WriterTest::Append(Bytes bytes, std::atomic<i64>* filePosition, i64 lastRevision) {
    const auto size = static_cast<u32>(bytes.size());
    return Writer().Write(bytes.data(), size, nullptr, nullptr, lastRevision, filePosition);
}

u32 WriterTest::AppendRecord(i64 rev) {
    return Append(Record(rev, 10), nullptr, rev);
}

u32 WriterTest::AppendRun(const Bytes& records, i64 commitRev, u32 sequence) {
    Bytes run = records + BytesOfObject(NewCommitBlock(sequence, commitRev));
    auto* const block = reinterpret_cast<TCommitBlock*>(run.data() + records.size());
    const auto size = static_cast<u32>(run.size());
    return Writer().Write(run.data(), size, block, nullptr, commitRev, nullptr);
}

u32 WriterTest::CommitRecord(i64 rev, u32 sequence) {
    const u32 rc = AppendRun(Record(rev, 10), rev, sequence);
    if (rc == RC_OK) {
        m_state.lastFlushedRev = rev;
    }
    return rc;
}

Bytes WriterTest::FileBytes(i64 offset, std::size_t count) const {
    const Bytes file = FileBytes();
    const auto begin = At(file, offset);
    return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

TCommitBlock WriterTest::CommitBlockAt(i64 offset) const {
    return LoadUnaligned<TCommitBlock>(FileBytes(offset, kCommitBlockSize).data());
}

}  // namespace k9erepl::test
