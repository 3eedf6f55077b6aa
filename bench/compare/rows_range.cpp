// The rows that read a few records at a random place: ranges of 100 and single records, from memory
// and from the file, and the first visit of a place after a reopening.
#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "compare/peer_work.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr i64 kRecords = 200'000;
constexpr int kRanges = 2'000;  // in one measurement

// Returns microseconds for one of the ranges of `inRange` records, which `read` gets the first
// revision of.
double TimeRanges(i64 inRange, const std::function<void(i64)>& read) {
    std::mt19937 random(1);
    std::uniform_int_distribution<i64> places(1, kRecords - inRange);
    const Stopwatch watch;
    for (int done = 0; done < kRanges; ++done) {
        read(places(random));
    }
    return watch.Microseconds() / kRanges;
}

double RangesOfBuffer(i64 inRange) {
    const std::vector<u8> packed = PackedRecords(kRecords);
    return TimeRanges(inRange, [&](i64 rev) {
        i64 sum = 0;
        Walk(packed.data() + static_cast<std::size_t>(rev - 1) * kRecordSize,
             static_cast<std::size_t>(inRange) * kRecordSize, Receiver(), &sum);
        Require(sum > 0, "walking over records");
    });
}

double RangesInMemory(i64 inRange) {
    BenchHandle storage(kInMemory);
    storage.Load();
    Append(storage.Get(), kRecords);
    return TimeRanges(inRange, [&](i64 rev) { Enumerate(storage.Get(), rev, inRange); });
}

// Reads single ranges of a storage file whose offsets are known.
class ExactReader {
  public:
    explicit ExactReader(const std::string& path)
        : m_offsets(OffsetsOfRecords(path)), m_file(path, RawFile::Mode::kRead), m_bytes(1 << 20) {}

    void Read(i64 rev, i64 inRange) {
        const u64 begin = m_offsets[static_cast<std::size_t>(rev - 1)];
        const u64 last = m_offsets[static_cast<std::size_t>(rev + inRange - 2)];
        const auto size = static_cast<std::size_t>(last + kRecordSize - begin);
        m_file.ReadAt(m_bytes.data(), size, begin);
        i64 sum = 0;
        Require(Walk(m_bytes.data(), size, Receiver(), &sum) == size, "walking over records");
    }

  private:
    const std::vector<u64> m_offsets;  // by revision - 1
    RawFile m_file;
    std::vector<u8> m_bytes;
};

double ExactReads(const std::string& folder, i64 inRange) {
    OurStorage storage(folder, kInFile);
    Append(storage.Handle(), kRecords);
    storage.Close();
    ExactReader reader(storage.File().Path());
    return TimeRanges(inRange, [&](i64 rev) { reader.Read(rev, inRange); });
}

double RangesInFile(const std::string& folder, i64 inRange) {
    const OurStorage storage(folder, kInFile);
    Append(storage.Handle(), kRecords);
    return TimeRanges(inRange, [&](i64 rev) { Enumerate(storage.Handle(), rev, inRange); });
}

double RangesOfPeer(const std::string& folder, const PeerKind& kind, i64 inRange) {
    const FilledPeer peer(folder, kind, kRecords);
    return TimeRanges(inRange, [&](i64 rev) { peer.Range(rev, inRange); });
}

// The first visits of places in blocks that lie three blocks apart, in random order: none is near
// what an earlier one has read. Returns the median in microseconds.
double FirstVisits(i64 blocks, i64 inRange, const std::function<void(i64)>& read) {
    std::mt19937 random(1);
    std::vector<i64> order(static_cast<std::size_t>(blocks / 3));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), random);
    const i64 inBlock = RecordsInBlock(kDataSize);
    std::uniform_int_distribution<i64> places(1, inBlock - inRange);
    std::vector<double> times;
    for (const i64 third : order) {
        const i64 rev = third * 3 * inBlock + places(random);
        const Stopwatch watch;
        read(rev);
        times.push_back(watch.Microseconds());
    }
    return Percentile(std::move(times), 0.5);
}

// A closed storage that fills `blocks` blocks and some more, so that those are not in memory when
// it is opened again.
void FillBlocks(OurStorage* storage, i64 blocks) {
    Append(storage->Handle(), static_cast<int>((blocks + 4) * RecordsInBlock(kDataSize)));
    storage->Close();
}

double FirstExactReads(const std::string& folder, i64 blocks, i64 inRange) {
    OurStorage storage(folder, kInFile);
    FillBlocks(&storage, blocks);
    ExactReader reader(storage.File().Path());
    return FirstVisits(blocks, inRange, [&](i64 rev) { reader.Read(rev, inRange); });
}

double FirstRanges(const std::string& folder, i64 blocks, i64 inRange) {
    OurStorage storage(folder, kInFile);
    FillBlocks(&storage, blocks);
    storage.Open(kInFile);
    return FirstVisits(blocks, inRange,
                       [&](i64 rev) { Enumerate(storage.Handle(), rev, inRange); });
}

std::string TitleOf(i64 inRange) {
    return inRange == 1 ? "one record by its revision" : fmt::format("range of {}", inRange);
}

void AddMemoryRow(i64 inRange, const std::string& folder, std::vector<Mark> marks, Rows* rows) {
    Row row;
    row.id = fmt::format("range-{}-memory", inRange);
    row.title = TitleOf(inRange) + ", memory";
    row.unit = "µs a range";
    row.limit = "direct access";
    row.contenders = {{"limit", Role::kLimit, [=] { return RangesOfBuffer(inRange); }},
                      {"this library", Role::kOurs, [=] { return RangesInMemory(inRange); }}};
    for (const PeerKind& peer : Peers()) {
        if (std::string(peer.name) == "LMDB") {
            row.contenders.push_back(
                {peer.name, Role::kPeer, [=] { return RangesOfPeer(folder, peer, inRange); }});
        }
    }
    row.marks = std::move(marks);
    rows->push_back(std::move(row));
}

void AddFileRow(i64 inRange, const std::string& folder, std::vector<Mark> marks, Rows* rows) {
    Row row;
    row.id = fmt::format("range-{}-file", inRange);
    row.title = TitleOf(inRange) + ", file, blocks that were written before";
    row.unit = "µs a range";
    row.limit = "one exact pread(2)";
    row.contenders = {{"limit", Role::kLimit, [=] { return ExactReads(folder, inRange); }},
                      {"this library", Role::kOurs, [=] { return RangesInFile(folder, inRange); }}};
    for (const PeerKind& peer : Peers()) {
        row.contenders.push_back(
            {peer.name, Role::kPeer, [=] { return RangesOfPeer(folder, peer, inRange); }});
    }
    row.marks = std::move(marks);
    rows->push_back(std::move(row));
}

void AddFirstVisitRow(i64 inRange, const Context& context, std::vector<Mark> marks, Rows* rows) {
    const i64 blocks = context.quick ? 20 : 90;
    const std::string folder = context.memoryFolder;
    Row row;
    row.id = fmt::format("range-{}-first", inRange);
    row.title = TitleOf(inRange) + ", file, first visit after a reopening";
    row.unit = "µs a range";
    row.limit = "one exact pread(2)";
    row.contenders = {
        {"limit", Role::kLimit, [=] { return FirstExactReads(folder, blocks, inRange); }},
        {"this library", Role::kOurs, [=] { return FirstRanges(folder, blocks, inRange); }}};
    row.marks = std::move(marks);
    rows->push_back(std::move(row));
}

}  // namespace

void AddRangeRows(const Context& context, Rows* rows) {
    using Kind = Mark::Kind;
    const std::string folder = context.memoryFolder;
    AddMemoryRow(100, folder, {{Kind::kTimesLimit, 1.4, ""}, {Kind::kFasterThan, 1, "LMDB"}}, rows);
    AddFileRow(100, folder, {{Kind::kTimesLimit, 3, ""}}, rows);
    AddFirstVisitRow(100, context, {{Kind::kAtMost, 160, ""}}, rows);
    AddMemoryRow(1, folder, {{Kind::kAtMost, 1.5, ""}}, rows);
    AddFileRow(1, folder, {{Kind::kAtMost, 10, ""}}, rows);
}

}  // namespace k9erepl::bench
