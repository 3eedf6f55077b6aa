// The family of sizes: records of every size up to what is refused; and storages whose next record
// lies at the 2, 4 and 8 GiB borders, with one of its parts just below, at or just behind the
// border, and goes through the life of a storage there. Files have holes for the data of records.
#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cstring>

#include "format/index_file_format.h"
#include "format/storage_file_format.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kFirstStamp = 0x40000000;          // none that a large image has
constexpr u32 kFillItemSize = 10 * 1024 * 1024;  // just what the load scan reads at once
constexpr u32 kRecordMax = kFillItemSize - kRecordHeadSize;

std::string IndexPath() {
    return StoragePath() + "-idx";
}

model::PlannedRecord Planned(u32 dataSize, u32 seed) {
    return model::MakeRecord({model::SizeClass::kBytes, dataSize},
                             dataSize + model::kRecordOverhead, seed);
}

// What both kinds of lives do. A broken promise is thrown.
class Life {
  protected:
    Life(MemoryDisk& disk, u64 seed) : m_disk(disk), m_random(seed) {
        m_settings.cacheBlocks = 1;
        m_settings.readBuffers = 1;
        m_expected.nextRev = 1;
        SteadyCalls::SetStamp(kFirstStamp);
    }

    void Connect(model::StorageClient& client) {
        const u32 opened = client.Open(m_settings.ConnString(StoragePath()));
        Require(opened == RC_OK, "opening answers " + std::to_string(opened));
        const u32 loaded = K9eReplStorageLoad(client.Handle());
        Require(loaded == RC_OK, "loading answers " + std::to_string(loaded));
    }
    // A null `prepared` takes the next revision.
    void Insert(model::StorageClient& client, u32 dataSize, const i64* prepared = nullptr) {
        const model::PlannedRecord planned = Planned(dataSize, static_cast<u32>(m_random.Next()));
        i64 rev = 0;
        const u32 rc = client.Insert(planned, prepared, &rev);
        Require(rc == RC_OK && rev == (prepared != nullptr ? *prepared : m_expected.nextRev),
                "inserting answers " + std::to_string(rc) + ", revision " + std::to_string(rev));
        m_expected.records[rev] = planned.record;
        m_expected.nextRev = rev + 1;
    }
    void ExpectToSee(const Seen& seen) const {
        Require(seen == m_expected,
                "shows " + Describe(seen) + "; expected " + Describe(m_expected));
    }
    static void RemoveIndex() { platform::TheSystemCalls().removeFile(IndexPath().c_str()); }

    MemoryDisk& m_disk;
    model::Random m_random;
    model::Settings m_settings;
    Seen m_expected;
};

// --- Records of one size, in a storage of their own.

struct SizeCase {
    u32 blockSize;
    u32 dataSize;
    bool refused;
};
constexpr u32 kBlock = 65536;
constexpr u32 kLargeBlock = 12 * 1024 * 1024;
constexpr std::array<SizeCase, 12> kSizes = {{{kLargeBlock, kRecordMax, false},
                                              {kLargeBlock, kRecordMax + 1, true},
                                              {kLargeBlock, 0x7FFFFFFF, true},
                                              {kLargeBlock, 0x80000000, true},  // -2^31
                                              {kLargeBlock, 0xFFFFFFE8, true},  // -24: 0 in all
                                              {kLargeBlock, 0xFFFFFFFF, true},
                                              {kBlock, 0, false},
                                              {kBlock, 1, false},
                                              {kBlock, kBlock - 25, false},
                                              {kBlock, kBlock - 24, false},
                                              {kBlock, kBlock - 23, true},
                                              {kBlock, kBlock, true}}};

class SizeLife : Life {
  public:
    SizeLife(MemoryDisk& disk, const SizeCase& size, u64 seed) : Life(disk, seed), m_size(size) {
        m_settings.blockSize = size.blockSize;
        m_settings.async = m_random.OneIn(2);
        m_settings.flushThreshold = m_random.OneOf({1, 3});
        // The largest records are larger than a step of the file's growth.
        m_settings.deltaMebibytes = size.blockSize == kLargeBlock ? 1 : m_random.Below(2);
    }

    void Run() {
        m_disk.Mount({});
        const std::string connString = m_settings.ConnString(StoragePath());
        const u32 created = K9eReplStorageCreate(connString.c_str(), 0);
        Require(created == RC_OK, "creating answers " + std::to_string(created));
        Fill();
        for (u32 round = 0; round < 3; ++round) {
            if (round == 2) {
                RemoveIndex();
            }
            Seen seen;
            const Problem problem = Visit(connString, {}, &seen);
            Require(problem.empty(), problem);
            m_expected.oldestRev = round == 0 ? seen.oldestRev : m_expected.oldestRev;
            ExpectToSee(seen);
        }
    }

  private:
    // The record between others: alone, under a revision of its own, in a transaction.
    void Fill() {
        model::StorageClient client;
        Connect(client);
        for (const bool isPrepared : {false, true}) {
            Insert(client, 10);
            InsertTheOne(client, isPrepared, false);
        }
        K9eReplStorageBeginTransaction(client.Handle());
        Insert(client, 20);
        InsertTheOne(client, true, true);
        m_expected.nextRev = client.NextRev();  // one that was refused is used up
        Insert(client, 30);
        const u32 committed = K9eReplStorageCommit(client.Handle());
        Require(committed == RC_OK, "committing answers " + std::to_string(committed));
    }

    void InsertTheOne(model::StorageClient& client, bool isPrepared, bool inTransaction) {
        model::PlannedRecord planned;
        planned.dataSize = m_size.dataSize;
        if (m_size.dataSize <= kLargeBlock) {
            planned = Planned(m_size.dataSize, static_cast<u32>(m_random.Next()));
        }
        const i64 prepared = m_expected.nextRev + (inTransaction ? 0 : 5);
        i64 rev = 0;
        const u32 rc = client.Insert(planned, isPrepared ? &prepared : nullptr, &rev);
        Require(rc == (m_size.refused ? RC_INVALID_ARG : RC_OK),
                "inserting it answers " + std::to_string(rc));
        if (!m_size.refused) {
            m_expected.records[rev] = planned.record;
            m_expected.nextRev = rev + 1;
        }
        Require(client.NextRev() == m_expected.nextRev || (m_size.refused && inTransaction),
                "next revision is " + std::to_string(client.NextRev()));
    }

    const SizeCase m_size;
};

// Settings that are sizes: negative ones are refused as the manual says, and nothing is left open.
Problem RefuseNegativeSettings(MemoryDisk& disk) {
    struct Refusal {
        const char* setting;
        u32 code;
    };
    static constexpr std::array<Refusal, 8> kRefusals = {
        {{"file_initial_size", RC_BAD_SIZE},
         {"file_size_delta", RC_BAD_SIZE},
         {"block_size", RC_INVALID_ARG},
         {"read_buffers_count", RC_BAD_SIZE},
         {"async_mode=yes;async_buffer_size", RC_BAD_SIZE},
         {"flush_timeout", RC_INVALID_ARG},
         {"memory_reserve", RC_OK},  // the default
         {"index_hint", RC_OK}}};
    disk.Mount({});
    const std::string file = ";file=" + StoragePath();
    K9eReplStorageCreate(file.c_str(), 0);
    for (const Refusal& refusal : kRefusals) {
        for (const char* number : {"-1", "-2147483648", "-99999999999"}) {
            const std::string setting = std::string(refusal.setting) + "=" + number;
            model::StorageClient client;
            const u32 rc = client.Open(setting + file);
            client.Close();
            Require(rc == refusal.code && disk.OpenFiles() == 0,
                    setting + " answers " + std::to_string(rc) + ", leaves " +
                        std::to_string(disk.OpenFiles()) + " files open");
        }
    }
    return "";
}

// --- Borders

// Records from revision 1 on, one a transaction, that fill a storage file up to a given byte.
class LargeImage {
  public:
    // REQUIRES: `end` leaves room for several items.
    explicit LargeImage(i64 end) {
        const i64 room = end - kFirstItemOffset;
        assert(room > 2 * i64{kFillItemSize});
        m_lastRev = room / kFillItemSize + 1;
        m_lastButOneSize = kFillItemSize - kPieceSize;
        m_lastSize = static_cast<u32>(room % kFillItemSize) + kPieceSize;
        if (m_lastSize > kFillItemSize) {
            m_lastButOneSize = kFillItemSize;
            m_lastSize -= kPieceSize;
        }
    }

    // With the index file, which names every record, if `withIndex`.
    DiskImage Make(bool withIndex) const {
        FileBytes file;
        const TFileHeader header = NewFileHeader();
        file.Write(0, &header, sizeof header);
        const TCommitBlock first = NewCommitBlock(SequenceOf(0), 0);
        file.Write(kFirstCommitOffset, &first, sizeof first);
        FileBytes index;
        TIndexHeader indexHeader{};
        std::memcpy(indexHeader.magic, kIndexMagic, kIndexMagicSize);
        indexHeader.version = kIndexVersion;
        indexHeader.count = static_cast<u32>(m_lastRev);
        indexHeader.blockSize = kFillItemSize;
        i64 offset = kFirstItemOffset;
        i64 entryOffset = sizeof indexHeader;
        for (i64 rev = 1; rev <= m_lastRev; ++rev) {
            WriteItem(file, rev, offset);
            const TIndexEntry entry{.rev = rev, .offset = offset};
            indexHeader.checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
            index.Write(entryOffset, &entry, sizeof entry);
            offset += ItemSizeOf(rev);
            entryOffset += sizeof entry;
        }
        index.Write(0, &indexHeader, sizeof indexHeader);
        DiskImage image;
        image.Put(StoragePath(), std::move(file));
        if (withIndex) {
            image.Put(IndexPath(), std::move(index));
        }
        return image;
    }
    i64 LastRev() const { return m_lastRev; }
    // Data is zeros but for the first and the last eight bytes, which are the revision.
    model::Record RecordOf(i64 rev) const {
        std::string data(ItemSizeOf(rev) - kItemOverhead, '\0');
        std::memcpy(data.data(), &rev, sizeof rev);
        std::memcpy(data.data() + data.size() - sizeof rev, &rev, sizeof rev);
        return {static_cast<u32>(rev), std::move(data)};
    }

  private:
    static constexpr u32 kItemOverhead = kRecordHeadSize + kCommitBlockSize;
    // What is taken from the last item but one, so that the last one can be made.
    static constexpr u32 kPieceSize = 4096;

    static u32 SequenceOf(i64 rev) { return static_cast<u32>(1000 + rev); }
    // Of a record and the commit block behind it.
    u32 ItemSizeOf(i64 rev) const {
        return rev == m_lastRev       ? m_lastSize
               : rev == m_lastRev - 1 ? m_lastButOneSize
                                      : kFillItemSize;
    }
    void WriteItem(FileBytes& file, i64 rev, i64 offset) const {
        const u32 size = ItemSizeOf(rev);
        const TRecordHead head{.signature = kRecordSignature,
                               .size = size - kCommitBlockSize,
                               .rev = rev,
                               .userWord = static_cast<u32>(rev),
                               .dataSize = size - kItemOverhead};
        TCommitBlock block = NewCommitBlock(SequenceOf(rev), rev);
        block.prevSequence = SequenceOf(rev - 1);
        file.Write(offset, &head, sizeof head);
        file.Write(offset + kRecordHeadSize, &rev, sizeof rev);
        file.Write(offset + size - kCommitBlockSize - i64{sizeof rev}, &rev, sizeof rev);
        file.Write(offset + size - kCommitBlockSize, &block, sizeof block);
    }

    i64 m_lastRev = 0;
    // The last two items are smaller than the others.
    u32 m_lastButOneSize = kFillItemSize;
    u32 m_lastSize = 0;
};

// Where the border lies in the item that the client writes there.
struct Place {
    i64 begin;      // bytes of the item in front of a part, but for the record's data
    u32 dataParts;  // halves of the data that lie in front of it, too
    i64 shift;      // bytes behind the border at which that part begins
};
constexpr i64 kHead = kRecordHeadSize;
constexpr std::array<Place, 9> kPlaces = {{{0, 0, -1},  // the head
                                           {0, 0, 0},
                                           {0, 0, 1},
                                           {kHead, 0, 0},   // the data
                                           {kHead, 1, 0},   // its middle
                                           {kHead, 2, -1},  // the commit block
                                           {kHead, 2, 0},
                                           {kHead, 2, 1},
                                           {kHead + kCommitBlockSize, 2, 0}}};  // the end

// Which openings find no index and read the whole file: the first, which makes the index, and one
// behind the border. Otherwise they find one that we made, and one that the library made.
struct Scans {
    bool first;
    bool later;
};

// One storage at one border.
class BorderLife : Life {
  public:
    BorderLife(MemoryDisk& disk, i64 border, const Place& place, u64 seed)
        : Life(disk, seed),
          m_dataSize(2 + m_random.Below(300)),
          m_image(border + place.shift - place.begin - i64{m_dataSize} * place.dataParts / 2) {
        m_settings.blockSize = kFillItemSize;
        m_settings.async = m_random.OneIn(2);
        m_settings.forceFlush = m_random.OneIn(2);
        m_settings.deltaMebibytes = m_random.OneIn(3) ? 1 : 0;
        m_nearRev = m_image.LastRev();
        m_expected.records[m_nearRev] = m_image.RecordOf(m_nearRev);
        m_expected.nextRev = m_nearRev + 1;
        m_disk.SetGate([this](const Attempt& attempt) {
            m_read += attempt.call == test::SystemCall::kRead ? attempt.size : 0;
            return Permit();
        });
    }
    ~BorderLife() { m_disk.SetGate(nullptr); }
    BorderLife(const BorderLife&) = delete;
    BorderLife& operator=(const BorderLife&) = delete;

    void Run(const Scans& scans) {
        m_disk.Mount(m_image.Make(!scans.first));
        const auto appendOne = [this](Client& client) { Insert(client, m_random.Below(300)); };
        const auto nothing = [](Client& /*client*/) {};
        Session("first", scans.first, [&](Client& client) {
            Append(client);
            appendOne(client);
        });
        Session("with an index", false,
                [&](Client& client) { Clear(client, K9EREPL_CLEAR_LOGICAL); });
        Session("cleared", false, appendOne);
        Session("appended", scans.later, nothing);
        Session("before the squeeze", false,
                [&](Client& client) { Clear(client, K9EREPL_CLEAR_SQUEEZE); });
        Session("squeezed", false, appendOne);
        Session("in the end", false, nothing);
    }

  private:
    using Client = model::StorageClient;

    // `scans`: the load reads the whole file, because there is no index.
    template <typename Deed>
    void Session(const char* name, bool scans, Deed deed) try {
        if (scans) {
            RemoveIndex();
        }
        const i64 size = m_disk.Image().Find(StoragePath())->Size();
        m_read = 0;
        Client client;
        Connect(client);
        const bool scanned = m_read >= static_cast<u64>(size - kFirstCommitOffset);
        Require(size < 10 * i64{kFillItemSize} || scanned == scans,
                "reads " + std::to_string(m_read) + " bytes");
        Look(client);
        deed(client);
        Look(client);
        client.Close();
        // Everything was written when the storage was closed.
        const std::vector<i64> flushed = client.TakeFlushed();
        const i64 written = client.Writer().Get().rev.value_or(0);
        const i64 lastRev = m_expected.nextRev - 1;
        Require(flushed.empty() || (flushed.back() == lastRev && written == lastRev),
                "written to " + std::to_string(written) + " of " + std::to_string(lastRev));
    } catch (const BrokenPromise& broken) {
        throw BrokenPromise(std::string(name) + ": " + broken.what());
    }

    // The first record lies at the border; a large one drives what lies there out of memory.
    void Append(Client& client) {
        const i64 gap = m_expected.nextRev + 2 + m_random.Below(1000);
        Insert(client, m_dataSize);
        Insert(client, 0);
        Insert(client, 1, &gap);
        Insert(client, kRecordMax);
    }

    // The record at the border becomes the oldest one.
    void Clear(Client& client, u32 mode) {
        const i64 rev = m_image.LastRev() + 1;
        const u32 rc = K9eReplStorageClearOldRev(client.Handle(), rev, mode);
        Require(rc == RC_OK, "clearing answers " + std::to_string(rc));
        m_expected.records.erase(m_expected.records.begin(), m_expected.records.lower_bound(rev));
        m_expected.oldestRev = rev;
        m_nearRev = model::kLowestRev;  // nothing is left in front
    }

    void Look(const Client& client) {
        Seen seen;
        ReadMarks(client, &seen);
        m_expected.oldestRev = m_oldestKnown ? m_expected.oldestRev : seen.oldestRev;
        m_oldestKnown = true;
        seen.records = Read(client, m_nearRev, model::kHighestRev);
        ExpectToSee(seen);
        // Ranges of one revision, over the border and at the file's beginning.
        model::Records expected = m_expected.records;
        if (m_nearRev != model::kLowestRev) {
            expected[1] = m_image.RecordOf(1);
        }
        for (const auto& [rev, record] : expected) {
            const model::Records records = Read(client, rev, rev);
            Require(records.size() == 1 && records.begin()->second == record,
                    "revision " + std::to_string(rev) + " by itself is another");
        }
    }

    static model::Records Read(const Client& client, i64 from, i64 to) {
        model::Records records;
        const u32 rc = ReadRange(client, from, to, &records);
        Require(rc == RC_OK, "enumerating answers " + std::to_string(rc));
        return records;
    }

    const u32 m_dataSize;  // of the record at the border
    const LargeImage m_image;
    i64 m_nearRev = 0;  // from here on records are compared
    bool m_oldestKnown = false;
    std::atomic<u64> m_read{0};  // bytes asked for since the session began
};

// Scans take nearly all the time: cases without them come first.
void RunGroup(GroupRun& run) {
    constexpr i64 kGiB = i64{1} << 30;
    const SteadyCalls steady;
    MemoryDisk disk;
    u64 number = 0;
    for (const SizeCase& size : kSizes) {
        ++number;
        run.Case(number, [&]() -> Problem {
            SizeLife(disk, size, Mix(run.Seed(), number)).Run();
            return "";
        });
    }
    run.Case(++number, [&] { return RefuseNegativeSettings(disk); });
    for (const u64 turn : {2U, 0U, 1U}) {
        for (auto place = static_cast<std::size_t>((turn + 2 * run.Number()) % 3);
             place < kPlaces.size(); place += 3) {
            for (const i64 border : {8 * kGiB, 4 * kGiB, 2 * kGiB}) {
                ++number;
                const Scans scans{border < 8 * kGiB || turn == 0, border == 2 * kGiB || turn == 1};
                run.Case(number, [&]() -> Problem {
                    const u64 seed = Mix(run.Seed(), number);
                    BorderLife(disk, border, kPlaces.at(place), seed).Run(scans);
                    return "";
                });
            }
        }
    }
}

const RegisteredFamily kFamily({.name = "sizes",
                                .title = "2, 4 and 8 GiB borders, records of every size",
                                .cases = 40,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
