// The rows that open and load storages of several sizes, each with its last 100 MiB in memory, and
// that then read ranges from the other part of the file.
#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <random>

#include "compare/posix/process.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr u32 kLongPiece = 10u << 20;  // bytes of one read of the load scan
constexpr i64 kBlocks = 100;
constexpr i64 kInRange = 100;
constexpr int kVisits = 30;
constexpr const char* kSettings = "flush_mode=PerTrans;flush_trans_num=10;cache_type=Last100";

// A storage file that all measurements of a row open; no measurement changes it.
class PreparedFile {
  public:
    // Fills the file, unless that is done, in a process of its own. Its last 100 blocks begin a
    // part of their own.
    void Fill(const std::string& folder, i64 records) {
        if (m_file != nullptr) {
            return;
        }
        m_file = std::make_unique<BenchFile>(folder);
        const auto filled = RunInChild([&] {
            Require(K9eReplStorageCreate(ConnStr().c_str(), K9EREPL_CREATE_NEW) == RC_OK,
                    "creating the storage");
            const i64 last = kBlocks * RecordsInBlock(kDataSize);
            AppendPart(records - last);
            const double begin = static_cast<double>(std::filesystem::file_size(Path()));
            AppendPart(last);
            return begin;
        });
        Require(filled.has_value(), "filling the storage");
        // Without file_size_delta the file ends with its data, and 8 zeros at the very beginning.
        m_lastBlocks = static_cast<u64>(*filled);
    }

    const std::string& Path() const { return m_file->Path(); }
    std::string ConnStr() const { return m_file->ConnStr(kSettings); }
    u64 LastBlocks() const { return m_lastBlocks; }  // offset of the first of the last 100 blocks

  private:
    void AppendPart(i64 records) const {
        BenchHandle storage(ConnStr());
        storage.Load();
        Append(storage.Get(), static_cast<int>(records));
    }

    std::unique_ptr<BenchFile> m_file;
    u64 m_lastBlocks = 0;
};

// Copies records into blocks that nobody has used before.
class FreshBlocks {
  public:
    void Take(const K9eReplRec* rec) {
        const u32 size = rec->dataSize + kHeadSize;
        if (m_blocks.empty() || m_used + size > kBlockSize) {
            m_blocks.push_back(std::make_unique_for_overwrite<u8[]>(kBlockSize));
            m_used = 0;
        }
        std::memcpy(m_blocks.back().get() + m_used, reinterpret_cast<const u8*>(rec) - 8, size);
        m_used += size;
    }
    std::size_t Count() const { return m_blocks.size(); }

  private:
    std::vector<std::unique_ptr<u8[]>> m_blocks;
    u32 m_used = 0;  // bytes of the last block
};

// Returns milliseconds.
double ReadWalkAndCopy(const PreparedFile& prepared) {
    const Stopwatch watch;
    RawFile file(prepared.Path(), RawFile::Mode::kRead);
    file.SeekTo(prepared.LastBlocks());
    FreshBlocks blocks;
    const auto take = [](const K9eReplRec* rec, void* context) -> u32 {
        static_cast<FreshBlocks*>(context)->Take(rec);
        return 0;
    };
    const auto piece = std::make_unique_for_overwrite<u8[]>(kLongPiece);
    std::size_t kept = 0;
    while (const std::size_t got = file.Read(piece.get() + kept, kLongPiece - kept)) {
        const std::size_t walked = Walk(piece.get(), kept + got, take, &blocks);
        kept = kept + got - walked;
        std::memmove(piece.get(), piece.get() + walked, kept);
    }
    Require(blocks.Count() >= kBlocks, "copying the last blocks");
    return watch.Microseconds() / 1e3;
}

// Returns milliseconds of the opening and the load, without those of the close.
double Reopen(const PreparedFile& prepared) {
    const Stopwatch watch;
    BenchHandle storage(prepared.ConnStr());
    storage.Load();
    const double took = watch.Microseconds() / 1e3;
    i64 nextRev = 0;
    Require(K9eReplStorageGetNextRev(storage.Get(), &nextRev) == RC_OK && nextRev > 1,
            "finding the records");
    return took;
}

// Calls `read` with random places up to `last`; returns the median in microseconds.
double TimeVisits(u64 last, const std::function<void(u64)>& read) {
    std::mt19937 random(1);
    std::uniform_int_distribution<u64> places(1, last);
    return MedianOf(kVisits, [&] {
        const u64 place = places(random);
        const Stopwatch watch;
        read(place);
        return watch.Microseconds();
    });
}

double ExactVisits(const PreparedFile& prepared) {
    RawFile file(prepared.Path(), RawFile::Mode::kRead);
    u8 range[kInRange * kRecordSize];
    return TimeVisits(prepared.LastBlocks() - sizeof(range),
                      [&](u64 offset) { file.ReadAt(range, sizeof(range), offset); });
}

double Visits(const PreparedFile& prepared, i64 records) {
    BenchHandle storage(prepared.ConnStr());
    storage.Load();
    const i64 inMemory = kBlocks * RecordsInBlock(kDataSize);
    return TimeVisits(static_cast<u64>(records - inMemory - kInRange),
                      [&](u64 rev) { Enumerate(storage.Get(), static_cast<i64>(rev), kInRange); });
}

struct FileSize {
    const char* name;  // in GB
    i64 records;
};

Row RowOf(const Context& context, const FileSize& size,
          const std::shared_ptr<PreparedFile>& prepared) {
    Row row;
    row.prepare = [prepared, records = size.records, folder = context.memoryFolder] {
        prepared->Fill(folder, records);
    };
    return row;
}

Row ReopenRow(const Context& context, const FileSize& size,
              const std::shared_ptr<PreparedFile>& prepared) {
    Row row = RowOf(context, size, prepared);
    row.id = fmt::format("reopen-{}", size.name);
    row.title = fmt::format("reopen a file of {} GB, 100 MiB into memory", size.name);
    row.unit = "ms";
    row.limit = "read(2), walk and copy into fresh memory";
    row.contenders = {{"limit", Role::kLimit, [prepared] { return ReadWalkAndCopy(*prepared); }},
                      {"this library", Role::kOurs, [prepared] { return Reopen(*prepared); }}};
    row.marks = {{Mark::Kind::kTimesLimit, 1.1, ""}};
    return row;
}

Row VisitRow(const Context& context, const FileSize& size,
             const std::shared_ptr<PreparedFile>& prepared) {
    Row row = RowOf(context, size, prepared);
    row.id = fmt::format("file-{}", size.name);
    row.title = fmt::format("range of 100, first visits in a file of {} GB", size.name);
    row.unit = "µs a range";
    row.limit = "one pread(2) of as many bytes";
    row.contenders = {{"limit", Role::kLimit, [prepared] { return ExactVisits(*prepared); }},
                      {"this library", Role::kOurs,
                       [=, records = size.records] { return Visits(*prepared, records); }}};
    return row;
}

}  // namespace

void AddReopenRows(const Context& context, Rows* rows) {
    std::vector<FileSize> sizes = {{"0.1", 950'000}};
    if (!context.quick) {
        sizes.push_back({"1", 8'000'000});
    }
    if (context.big) {
        sizes.push_back({"5", 40'000'000});
    }
    for (const FileSize& size : sizes) {
        const auto prepared = std::make_shared<PreparedFile>();
        rows->push_back(ReopenRow(context, size, prepared));
        rows->push_back(VisitRow(context, size, prepared));
    }
}

}  // namespace k9erepl::bench
