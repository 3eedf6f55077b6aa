// The rows that append: steadily, with blocks of memory that have been used before, and into a new
// storage, whose first blocks are fresh memory. Also records of every size.
#include <fmt/format.h>

#include <algorithm>

#include "compare/peer.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr const char* kLimit =
    "memcpy into a ring of blocks and one write(2) every 10 transactions";
constexpr i64 kBlocksInRing = 4;

struct Work {
    int perTransaction = 1;
    u32 dataSize = kDataSize;
    i64 records = 0;   // that are measured
    bool warm = true;  // after more records than the ring, or the cache, has room for

    i64 WarmUp() const { return warm ? (kBlocksInRing + 2) * RecordsInBlock(dataSize) : 0; }
    i64 BlocksInMemory() const { return warm ? kBlocksInRing : 100; }
};

// Blocks that are filled one after the other and written as our flushes write them.
class BlockRing {
  public:
    BlockRing(const std::string& path, const Work& work)
        : m_file(path, RawFile::Mode::kCreate),
          m_recordSize(work.dataSize + kHeadSize),
          m_perWrite(work.perTransaction * kTransactionsPerFlush),
          m_record(m_recordSize, 'x') {
        for (i64 made = 0; made < work.BlocksInMemory(); ++made) {
            // Uninitialised: the first use of each page is part of the work on fresh memory.
            m_blocks.push_back(std::make_unique_for_overwrite<u8[]>(kBlockSize + kCommitSize));
        }
    }

    void Append(i64 count) {
        for (i64 done = 0; done < count; ++done) {
            if (m_used + m_recordSize > kBlockSize) {
                Write();
                m_block = (m_block + 1) % m_blocks.size();
                m_used = 0;
                m_written = 0;
            }
            std::memcpy(m_blocks[m_block].get() + m_used, m_record.data(), m_recordSize);
            m_used += m_recordSize;
            if (++m_sinceWrite == m_perWrite) {
                Write();
            }
        }
    }

  private:
    void Write() {
        if (m_used > m_written) {
            m_file.Write(m_blocks[m_block].get() + m_written, m_used - m_written + kCommitSize);
        }
        m_written = m_used;
        m_sinceWrite = 0;
    }

    RawFile m_file;
    const std::size_t m_recordSize;
    const int m_perWrite;  // records
    const std::vector<u8> m_record;
    std::vector<std::unique_ptr<u8[]>> m_blocks;
    std::size_t m_block = 0;    // index of the one that is being filled
    std::size_t m_used = 0;     // bytes of that block
    std::size_t m_written = 0;  // bytes of that block
    int m_sinceWrite = 0;       // records
};

double AppendToRing(const std::string& folder, const Work& work) {
    const BenchFile file(folder);
    BlockRing ring(file.Path(), work);
    ring.Append(work.WarmUp());
    const Stopwatch watch;
    ring.Append(work.records);
    return watch.Nanoseconds() / static_cast<double>(work.records);
}

void InsertAlone(void* handle, const Work& work) {
    BenchRecord record(work.dataSize);
    bool ok = true;
    for (i64 done = 0; done < work.records; ++done) {
        ok = K9eReplStorageInsert(handle, record.Get()) == RC_OK && ok;
    }
    Require(ok, "inserting records");
}

double AppendToStorage(const std::string& folder, const Work& work, bool alone) {
    const OurStorage storage(
        folder, fmt::format("{}cache_type=Last{}", kAppendSettings, work.BlocksInMemory()));
    Append(storage.Handle(), static_cast<int>(work.WarmUp()), kPerTransaction, work.dataSize);
    const Stopwatch watch;
    if (alone) {
        InsertAlone(storage.Handle(), work);
    } else {
        Append(storage.Handle(), static_cast<int>(work.records), work.perTransaction,
               work.dataSize);
    }
    return watch.Nanoseconds() / static_cast<double>(work.records);
}

double AppendToPeer(const std::string& folder, const PeerKind& kind, const Work& work) {
    const BenchFile file(folder);
    const std::unique_ptr<Peer> peer = kind.make(file.Folder(), Durability::kSystem);
    const std::string data(work.dataSize, 'x');
    i64 rev = 1;
    const auto append = [&](i64 records, int perTransaction) {
        for (const i64 end = rev + records; rev < end; rev += perTransaction) {
            peer->Append(rev, perTransaction, data);
        }
    };
    append(work.WarmUp(), kPerTransaction);
    const Stopwatch watch;
    append(work.records, work.perTransaction);
    return watch.Nanoseconds() / static_cast<double>(work.records);
}

Row AppendRow(const Context& context, const Work& work) {
    const std::string folder = context.memoryFolder;
    Row row;
    row.unit = "ns a record";
    row.limit = kLimit;
    row.contenders = {
        {"limit", Role::kLimit, [=] { return AppendToRing(folder, work); }},
        {"this library", Role::kOurs, [=] { return AppendToStorage(folder, work, false); }}};
    if (work.perTransaction == 1) {
        row.contenders.push_back({"without Begin and Commit", Role::kVariant,
                                  [=] { return AppendToStorage(folder, work, true); }});
    }
    for (const PeerKind& peer : Peers()) {
        row.contenders.push_back(
            {peer.name, Role::kPeer, [=] { return AppendToPeer(folder, peer, work); }});
    }
    return row;
}

void AddSteadyRows(const Context& context, Rows* rows) {
    struct Case {
        int perTransaction;
        u32 dataSize;
        i64 records;
        double timesLimit;
    };
    const Case cases[] = {{1, 100, 200'000, 1.5},    {10, 100, 500'000, 1.3},
                          {100, 100, 500'000, 1.2},  {1, 1024, 100'000, 1.15},
                          {10, 1024, 100'000, 1.15}, {100, 1024, 100'000, 1.15}};
    for (const auto& [perTransaction, dataSize, records, timesLimit] : cases) {
        Row row = AppendRow(context, {perTransaction, dataSize, context.Scaled(records)});
        row.id = fmt::format("append-{}-{}", dataSize, perTransaction);
        row.title = fmt::format("append {} bytes, {} a transaction", dataSize, perTransaction);
        row.marks = {{Mark::Kind::kTimesLimit, timesLimit, ""}};
        if (dataSize == kDataSize) {
            row.marks.push_back({Mark::Kind::kFasterThan, 2.5, "LMDB"});
        }
        rows->push_back(std::move(row));
    }
}

void AddFreshRow(const Context& context, Rows* rows) {
    const i64 blocks = context.quick ? 20 : 100;
    Row row =
        AppendRow(context, {kPerTransaction, kDataSize, blocks * RecordsInBlock(kDataSize), false});
    row.id = "append-fresh";
    row.title = fmt::format("the first {} blocks of a new storage", blocks);
    row.limit = "the same on fresh memory";
    row.marks = {{Mark::Kind::kTimesLimit, 1.2, ""}};
    rows->push_back(std::move(row));
}

void AddSizeRows(const Context& context, Rows* rows) {
    for (const u32 dataSize : {10u, 100u, 1'000u, 10'000u, 100'000u, 1'000'000u}) {
        const i64 records = std::clamp<i64>(200'000'000 / dataSize, 200, 500'000);
        Row row = AppendRow(context, {10, dataSize, context.Scaled(records)});
        row.id = fmt::format("size-{}", dataSize);
        row.title = fmt::format("append {} bytes, 10 a transaction", dataSize);
        rows->push_back(std::move(row));
    }
}

}  // namespace

void AddAppendRows(const Context& context, Rows* rows) {
    AddSteadyRows(context, rows);
    AddFreshRow(context, rows);
    AddSizeRows(context, rows);
}

}  // namespace k9erepl::bench
