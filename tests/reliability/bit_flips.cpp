// The family of single bits: every bit of a small storage file is turned over, one at a time, and
// what the library makes of it is put into a class: detected, harmless, or undetectable, since data
// has no checksum. The counts by field are published.
#include <algorithm>

#include "model/storage_client.h"
#include "reliability/family.h"
#include "reliability/hostile_opening.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr std::size_t kFileSize = 65536;
constexpr std::size_t kZerosBehind = 1000;
// A group takes every 512th bit, so that a part of the groups looks at the whole file. Groups
// beyond these take another storage.
constexpr u64 kGroupsOfAStorage = 512;
constexpr u64 kFlipsOfAGroup = kFileSize * 8 / kGroupsOfAStorage;
// So many of the flips are opened for writing, too.
constexpr u64 kFlipsOfAWriter = 64;
constexpr u32 kFirstStamp = 0x1000;

struct Base {
    std::string bytes;
    SlowScan scan;
    std::vector<FileField> fields;
    Seen seen;      // opened for writing
    Seen inMemory;  // read into memory only: life number and mark stay in the file
};

std::string ReadingConn() {
    return "cache_type=AllInMem;flush_mode=NoFlush;block_size=131072;read_buffers_count=1;file=" +
           StoragePath();
}

std::string WritingConn() {
    return "cache_type=Last1;block_size=131072;flush_mode=PerTrans;flush_trans_num=1;"
           "read_buffers_count=1;flush_timeout=2000000000;file=" +
           StoragePath();
}

// Transactions of a few records each until the file is nearly full; a logical clear early on.
void Fill(MemoryDisk& disk, model::StorageClient& client, model::Random& random) {
    void* const handle = client.Handle();
    K9eReplStorageSetLifenum(handle, 0x01020304);
    K9eReplStorageClearOldRev(handle, 77, K9EREPL_CLEAR_MARK);
    const auto size = [&disk] { return disk.Image().Find(StoragePath())->Size(); };
    for (u32 transaction = 0; size() < static_cast<i64>(kFileSize - kZerosBehind - 1000);
         ++transaction) {
        K9eReplStorageBeginTransaction(handle);
        for (u32 left = 1 + random.Below(3); left > 0; --left) {
            const u32 dataSize = random.Below(600);
            const u32 seed = static_cast<u32>(random.Next());
            i64 rev = 0;
            client.Insert(model::MakeRecord({model::SizeClass::kBytes, dataSize}, 1000, seed),
                          nullptr, &rev);
        }
        K9eReplStorageCommit(handle);
        if (transaction == 4) {
            K9eReplStorageClearOldRev(handle, 3, K9EREPL_CLEAR_LOGICAL);
        }
    }
}

Base MakeBase(MemoryDisk& disk, u64 storage) {
    SteadyCalls::SetStamp(kFirstStamp);
    disk.Mount({});
    K9eReplStorageCreate(WritingConn().c_str(), 0);
    {
        model::Random random(storage + 1);
        model::StorageClient client;
        if (client.Open(WritingConn()) == RC_OK && K9eReplStorageLoad(client.Handle()) == RC_OK) {
            Fill(disk, client, random);
        }
    }
    Base base;
    base.bytes = FilesOf(disk.Image()).storage;
    base.bytes.resize(kFileSize);
    base.scan = ScanSlowly(base.bytes);
    base.fields = FieldsOfStorage(base.bytes, base.scan);
    disk.Mount(ImageOf({base.bytes, ""}));
    base.inMemory = OpenAndRead(ReadingConn()).seen;
    base.seen = OpenAndRead(WritingConn()).seen;
    return base;
}

// What is left when the walk ends at an item, and nothing else is wrong.
Seen CutBefore(const Base& base, std::size_t at, bool inMemory) {
    const std::string prefix = base.bytes.substr(0, at) + std::string(8, '\0');
    return ShownBy(prefix, ScanSlowly(prefix), inMemory);
}

// Null in the header and behind the data.
const SlowItem* ItemAt(const Base& base, std::size_t at) {
    const auto behind =
        std::upper_bound(base.scan.items.begin(), base.scan.items.end(), at,
                         [](std::size_t place, const SlowItem& item) { return place < item.at; });
    return at < kHeaderSize || at >= base.scan.validEnd ? nullptr : &*(behind - 1);
}

class Flip {
  public:
    Flip(MemoryDisk& disk, const Base& base, u64 bit)
        : m_disk(disk), m_base(base), m_at(static_cast<std::size_t>(bit / 8)), m_bytes(base.bytes) {
        m_bytes[m_at] = static_cast<char>(static_cast<u8>(m_bytes[m_at]) ^ 1U << bit % 8);
    }

    // "harmless" and the like. *problem tells when neither reader explains what was seen.
    std::string ClassOf(bool inMemory, Problem* problem) const {
        m_disk.Mount(ImageOf({m_bytes, ""}));
        const Opening opening = OpenAndRead(inMemory ? ReadingConn() : WritingConn());
        if (!opening.IsLoaded()) {
            return "detected, refused";
        }
        if (opening.readResult != RC_OK || !opening.rises) {
            *problem = "reading answers " + std::to_string(opening.readResult);
            return "";
        }
        const Seen& whole = inMemory ? m_base.inMemory : m_base.seen;
        if (opening.seen == whole) {
            return "harmless";
        }
        const SlowItem* const item = ItemAt(m_base, m_at);
        if (item != nullptr && IsAllButOneRecord(opening.seen, whole, *item)) {
            return "undetectable";
        }
        if (item != nullptr && opening.seen == CutBefore(m_base, item->at, inMemory)) {
            return "detected, cut before it";
        }
        const SlowScan scan = ScanSlowly(m_bytes);
        if (opening.seen != ShownBy(m_bytes, scan, inMemory)) {
            *problem = "content is none that the slow reader sees: " + Describe(opening.seen);
        }
        if (scan.validEnd == m_base.scan.validEnd || item == nullptr) {
            return "undetectable";
        }
        return opening.seen == CutBefore(m_base, item->at + item->size, inMemory)
                   ? "detected, cut behind it"
                   : "detected, cut with wrong revisions";
    }

    // Whether user word or data of that record are what they are in the file now, and the rest as
    // ever.
    bool IsAllButOneRecord(const Seen& seen, const Seen& whole, const SlowItem& item) const {
        if (item.kind != ItemKind::kRecord || seen.records.size() != whole.records.size() ||
            seen.nextRev != whole.nextRev || seen.oldestRev != whole.oldestRev) {
            return false;
        }
        const auto asExpected = [&](const auto& got, const auto& expected) {
            return got.first == expected.first &&
                   (got.first == item.rev ? got.second == RecordAt(m_bytes, item)
                                          : got.second == expected.second);
        };
        return std::equal(seen.records.begin(), seen.records.end(), whole.records.begin(),
                          asExpected);
    }

    Problem Run(GroupRun& run, bool alsoWriting) const {
        run.Keep(ImageOf({m_bytes, ""}), {}, 0);
        Problem problem;
        const FileField& field = FieldAt(m_base.fields, m_at);
        const std::string kind = ClassOf(m_at >= kHeaderSize, &problem);
        run.Count(kind);
        run.Count(std::string(field.name) + ": " + kind);
        if (problem.empty() && alsoWriting) {
            const std::string other = ClassOf(false, &problem);
            problem += other == kind ? "" : "opened for writing " + other + ", else " + kind;
        }
        return problem.empty()
                   ? ""
                   : std::string(field.name) + ", byte " + std::to_string(m_at) + ": " + problem;
    }

  private:
    MemoryDisk& m_disk;
    const Base& m_base;
    std::size_t m_at;
    std::string m_bytes;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const Base base = MakeBase(disk, run.Number() / kGroupsOfAStorage);
    for (u64 number = 0; number < kFlipsOfAGroup; ++number) {
        const u64 bit = number * kGroupsOfAStorage + run.Number() % kGroupsOfAStorage;
        const bool alsoWriting = (number + run.Number()) % kFlipsOfAWriter == 0;
        run.Case(number, [&] { return Flip(disk, base, bit).Run(run, alsoWriting); });
    }
}

const RegisteredFamily kFamily({.name = "bit-flips",
                                .title = "every single-bit flip of a 64 KiB storage",
                                .cases = kFileSize * 8,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
