// The vocabulary of the tests of enumeration and loading; see the header.
#include "engine/load_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

#include "index/index_file.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

namespace {

std::atomic<u64> g_bytesRead{0};

i64 CountingRead(platform::NativeFile file, void* buffer, u32 size) {
    const i64 got = platform::NativeSystemCalls().readFile(file, buffer, size);
    g_bytesRead += got > 0 ? static_cast<u64>(got) : 0;
    return got;
}

u32 CallFunction(const K9eReplRec* rec, void* callback) {
    return (*static_cast<const RecordFunction*>(callback))(*rec);
}

}  // namespace

std::string SmallCache(u32 blocks, std::string_view more) {
    return std::string(kEachCommit) + "cache_type=Last" + std::to_string(blocks) + ";" +
           std::string(more);
}

std::string ReaderSettings(const TestStorage& writer, std::string_view settings) {
    return "file=" + writer.Path() + ";read_only=yes;" + std::string(settings);
}

std::string OneBlock(std::string_view text) {
    std::string filled(text);
    filled.resize(kMinBlockSize - kRecordHeadSize, '.');
    return filled;
}

u32 EnumerateWith(TestStorage& storage, i64 fromRev, i64 toRev, const RecordFunction& callback) {
    return K9eReplStorageEnumRecords(storage.Handle(), fromRev, toRev, CallFunction,
                                     const_cast<RecordFunction*>(&callback));
}

Revs Walk(TestStorage& storage, const std::function<void(i64 rev)>& meanwhile, i64 toRev) {
    Revs seen;
    EXPECT_EQ(EnumerateWith(storage, 1, toRev,
                            [&](const K9eReplRec& rec) {
                                const i64 rev = rec.rev;
                                seen.push_back(rev);
                                meanwhile(rev);
                                return RC_OK;
                            }),
              RC_OK);
    return seen;
}

Revs RevsOf(const SeenRecords& records) {
    Revs revs;
    for (const SeenRecord& record : records) {
        revs.push_back(record.rev);
    }
    return revs;
}

Revs RevRange(i64 first, i64 last) {
    Revs revs;
    for (i64 rev = first; rev <= last; ++rev) {
        revs.push_back(rev);
    }
    return revs;
}

Model ModelOf(const SeenRecords& records) {
    Model model;
    for (const SeenRecord& record : records) {
        EXPECT_TRUE(model.empty() || model.rbegin()->first < record.rev) << record;
        model[record.rev] = record.data;
    }
    return model;
}

void ExpectEveryRange(TestStorage& storage, const Model& model, i64 lastRev) {
    for (i64 from = 0; from <= lastRev + 1; ++from) {
        for (i64 to = 0; to <= lastRev + 1; ++to) {
            Model expected;
            if (from <= to) {
                expected = Model(model.lower_bound(from), model.upper_bound(to));
            }
            ASSERT_EQ(ModelOf(storage.Records(from, to)), expected) << from << " to " << to;
        }
    }
}

std::string IndexPath(const TestStorage& storage) {
    return storage.Path() + "-idx";
}

IndexEntries ReadIndexEntries(const TestStorage& storage) {
    // The storage may have the file open, and then Windows opens it for no other reader of ours.
    const TempFolder folder;
    const std::string copy = folder.File("copy-idx");
    WriteBytes(copy, ReadBytes(IndexPath(storage)));
    IndexFileContent content;
    EXPECT_EQ(ReadIndexFile(copy, &content), RC_OK);
    IndexEntries entries;
    for (const TIndexEntry& entry : content.entries) {
        entries.emplace_back(entry.rev, entry.offset);
    }
    return entries;
}

std::vector<u8> IndexBytes(const IndexEntries& entries, u32 blockSize) {
    TIndexHeader header{};
    std::memcpy(header.magic, kIndexMagic, kIndexMagicSize);
    header.version = kIndexVersion;
    header.count = static_cast<u32>(entries.size());
    header.blockSize = blockSize;
    for (const auto& [rev, offset] : entries) {
        header.checksum ^= IndexEntryChecksum(rev, offset);
    }
    std::vector<u8> bytes(sizeof header + entries.size() * sizeof(TIndexEntry));
    std::memcpy(bytes.data(), &header, sizeof header);
    u8* to = bytes.data() + sizeof header;
    for (const auto& [rev, offset] : entries) {
        const TIndexEntry entry{.rev = rev, .offset = offset};
        std::memcpy(to, &entry, sizeof entry);
        to += sizeof entry;
    }
    return bytes;
}

void WriteIndex(const TestStorage& storage, const IndexEntries& entries, u32 blockSize) {
    WriteBytes(IndexPath(storage), IndexBytes(entries, blockSize));
}

IndexEntries EntriesInMemory(TestStorage& storage) {
    storage.WaitForWriter();
    IndexEntries entries;
    for (const auto& [rev, entry] : StorageAccess::Blocks(storage.Object()).Index()) {
        entries.emplace_back(entry.firstRev, entry.fileOffset.load());
    }
    return entries;
}

ReadMeter::ReadMeter() {
    platform::TheSystemCalls().readFile = CountingRead;
    Restart();
}

u64 ReadMeter::Bytes() const {
    return g_bytesRead;
}

void ReadMeter::Restart() {
    g_bytesRead = 0;
}

}  // namespace k9erepl::test
