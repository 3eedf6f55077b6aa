// The rows that read everything: from memory, and from the file in the system's page cache.
#include "compare/peer_work.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr int kPasses = 5;  // over all records, in one measurement

// Returns nanoseconds a record.
double TimePasses(i64 records, const std::function<void()>& pass) {
    return MedianOf(kPasses, [&] {
        const Stopwatch watch;
        pass();
        return watch.Nanoseconds() / static_cast<double>(records);
    });
}

double WalkMemory(i64 records) {
    const std::vector<u8> packed = PackedRecords(records);
    return TimePasses(records, [&] {
        i64 sum = 0;
        Walk(packed.data(), packed.size(), Receiver(), &sum);
        Require(sum > 0, "walking over records");
    });
}

double ScanMemory(i64 records) {
    BenchHandle storage(kInMemory);
    storage.Load();
    Append(storage.Get(), static_cast<int>(records));
    return TimePasses(records, [&] { Enumerate(storage.Get(), 1, records); });
}

// Reads the whole file in pieces of 2 MiB and walks over them.
void ReadAndWalk(const std::string& path, std::vector<u8>* piece) {
    RawFile file(path, RawFile::Mode::kRead);
    file.SeekTo(kFirstItem);
    i64 sum = 0;
    std::size_t kept = 0;
    while (const std::size_t got = file.Read(piece->data() + kept, kPieceSize)) {
        const std::size_t walked = Walk(piece->data(), kept + got, Receiver(), &sum);
        kept = kept + got - walked;
        std::memmove(piece->data(), piece->data() + walked, kept);
    }
    Require(sum > 0, "walking over records");
}

double WalkFile(const std::string& folder, i64 records) {
    OurStorage storage(folder, kInFile);
    Append(storage.Handle(), static_cast<int>(records));
    storage.Close();
    // Room for a piece behind what is kept of the one before it.
    std::vector<u8> piece(2 * kPieceSize);
    return TimePasses(records, [&] { ReadAndWalk(storage.File().Path(), &piece); });
}

double ScanFile(const std::string& folder, i64 records) {
    const OurStorage storage(folder, kInFile);
    Append(storage.Handle(), static_cast<int>(records));
    return TimePasses(records, [&] { Enumerate(storage.Handle(), 1, records); });
}

double ScanPeer(const std::string& folder, const PeerKind& kind, i64 records) {
    const FilledPeer peer(folder, kind, records);
    return TimePasses(records, [&] { peer.Range(1, records); });
}

}  // namespace

void AddScanRows(const Context& context, Rows* rows) {
    const i64 records = context.Scaled(500'000);
    const std::string folder = context.memoryFolder;
    Row memory;
    memory.id = "scan-memory";
    memory.title = "scan from memory, 100 bytes";
    memory.unit = "ns a record";
    memory.limit = "bare walk over the same bytes";
    memory.contenders = {{"limit", Role::kLimit, [=] { return WalkMemory(records); }},
                         {"this library", Role::kOurs, [=] { return ScanMemory(records); }}};
    memory.marks = {{Mark::Kind::kTimesLimit, 1.1, ""}};
    rows->push_back(std::move(memory));

    Row file;
    file.id = "scan-file";
    file.title = "scan from the file, 100 bytes";
    file.unit = "ns a record";
    file.limit = "read(2) of 2 MiB and a bare walk";
    file.contenders = {{"limit", Role::kLimit, [=] { return WalkFile(folder, records); }},
                       {"this library", Role::kOurs, [=] { return ScanFile(folder, records); }}};
    for (const PeerKind& peer : Peers()) {
        file.contenders.push_back(
            {peer.name, Role::kPeer, [=] { return ScanPeer(folder, peer, records); }});
    }
    file.marks = {{Mark::Kind::kTimesLimit, 1.4, ""}};
    rows->push_back(std::move(file));
}

}  // namespace k9erepl::bench
