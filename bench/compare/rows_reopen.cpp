// The rows that open and load storages of several sizes, each with its last 100 MiB in memory.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "compare/posix/process.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr u32 kLongPiece = 10u << 20;  // bytes of one read of the load scan
constexpr i64 kBlocks = 100;
constexpr const char* kSettings = "flush_mode=PerTrans;flush_trans_num=10;cache_type=Last100";

// A storage file that all measurements of a row open; no measurement changes it.
class PreparedFile {
  public:
    // Fills the file in a process of its own. Its last 100 blocks begin a part of their own.
    void Fill(const std::string& folder, i64 records) {
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

}  // namespace

void AddReopenRows(const Context& context, Rows* rows) {
    struct Case {
        const char* name;
        i64 records;
    };
    std::vector<Case> cases = {{"0.1", 950'000}};
    if (!context.quick) {
        cases.push_back({"1", 8'000'000});
    }
    if (context.big) {
        cases.push_back({"5", 40'000'000});
    }
    for (const auto& [name, records] : cases) {
        const auto prepared = std::make_shared<PreparedFile>();
        Row row;
        row.id = fmt::format("reopen-{}", name);
        row.title = fmt::format("reopen a file of {} GB, 100 MiB into memory", name);
        row.unit = "ms";
        row.limit = "read(2), walk and copy into fresh memory";
        row.prepare = [prepared, records = records, folder = context.memoryFolder] {
            prepared->Fill(folder, records);
        };
        row.contenders = {
            {"limit", Role::kLimit, [prepared] { return ReadWalkAndCopy(*prepared); }},
            {"this library", Role::kOurs, [prepared] { return Reopen(*prepared); }}};
        row.marks = {{Mark::Kind::kTimesLimit, 1.1, ""}};
        rows->push_back(std::move(row));
    }
}

}  // namespace k9erepl::bench
