// The family of ranges: after any mixture of insertions, clears, squeezes, truncations, rollbacks,
// failed flushes and reopenings, a range delivers exactly what a full enumeration delivers for it,
// also when notes of memory blocks and of the file were damaged on purpose.
#include <k9erepl/storage.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "engine/storage_fixture.h"
#include "model/storage_client.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 20;
constexpr u32 kSteps = 24;

// What tells one record from another: revision, size and the first byte of its data.
struct Delivered {
    i64 rev;
    u32 size;
    u8 first;

    bool operator==(const Delivered&) const = default;
};
using Records = std::vector<Delivered>;

class Mixture {
  public:
    Mixture(GroupRun& run, MemoryDisk& disk, u64 seed)
        : m_run(run), m_disk(disk), m_random(seed), m_async(m_random.OneIn(2)) {
        // A few dozen records fill a block, and a few blocks are in memory.
        m_connString = "file=" + StoragePath() +
                       ";flush_mode=PerTrans;flush_timeout=3600000;block_size=" +
                       std::to_string(m_random.OneOf<u32>({8192, 20'000, 60'000})) +
                       ";cache_type=" + m_random.OneOf({"Last1", "Last2", "AllInMem"}) +
                       ";flush_trans_num=" + std::to_string(m_random.OneOf<u32>({1, 3, 1000})) +
                       (m_random.OneIn(4) ? ";range_index_memory=700" : "") +
                       (m_async ? ";async_mode=yes" : ";async_mode=no");
    }

    Problem Run() {
        m_disk.Mount({});
        if (u32 rc = K9eReplStorageCreate(m_connString.c_str(), 0); rc != RC_OK) {
            return "Create answers " + std::to_string(rc);
        }
        Reopen();
        for (u32 step = 0; step < kSteps && m_problem.empty(); ++step) {
            Step();
            SteadyCalls::Settle();
            if (m_problem.empty()) {
                CompareRanges();
            }
        }
        m_disk.SetGate(nullptr);
        m_client.Close();
        return m_problem;
    }

  private:
    CK9eReplStorage& Object() { return *static_cast<CK9eReplStorage*>(m_client.Handle()); }
    BlockStore& Blocks() { return StorageAccess::Blocks(Object()); }
    bool IsOpen() { return StorageAccess::State(Object()) == StorageState::kOpen; }

    void Step() {
        const u32 ticket = m_random.Below(100);
        if (ticket < 50) {
            Transaction();
        } else if (ticket < 65) {
            Clear();
        } else if (ticket < 68) {
            Expect("Truncate", K9eReplStorageTruncate(m_client.Handle()));
        } else if (ticket < 76) {
            Reopen();
        } else if (ticket < 86) {
            FailFlush();
        } else {
            Damage();
        }
    }

    void Reopen() {
        m_client.Close();
        m_disk.SetGate(nullptr);
        Expect("Open", m_client.Open(m_connString));
        if (m_problem.empty()) {
            Expect("Load", K9eReplStorageLoad(m_client.Handle()));
        }
    }

    void Insert(u32 count) {
        for (; count > 0; --count) {
            const i64 rev = m_client.NextRev() + (m_random.OneIn(30) ? m_random.Below(40) : 0);
            std::vector<u8> bytes(sizeof(K9eReplRec) + 1000, static_cast<u8>(m_random.Next()));
            auto* const record = reinterpret_cast<K9eReplRec*>(bytes.data());
            record->rev = rev;
            record->userWord = 0;
            record->dataSize = m_random.Below(m_random.OneIn(10) ? 1000 : 300);
            Expect("InsertP", K9eReplStorageInsertP(m_client.Handle(), record));
        }
    }
    void Transaction() {
        Expect("Begin", K9eReplStorageBeginTransaction(m_client.Handle()));
        Insert(1 + m_random.Below(60));
        if (m_random.OneIn(6)) {
            CompareRanges();
            Expect("Rollback", K9eReplStorageRollback(m_client.Handle()));
        } else {
            Expect("Commit", K9eReplStorageCommit(m_client.Handle()));
        }
    }
    void Clear() {
        const i64 oldest = std::max<i64>(StorageAccess::OldestRev(Object()), 1);
        const i64 next = m_client.NextRev();
        const auto span = static_cast<u32>(std::max<i64>(next - oldest, 1));
        // Mostly a little, now and then everything.
        const i64 rev = m_random.OneIn(15) ? next : oldest + m_random.Below(span) / 3;
        const u32 mode = m_random.OneIn(3) ? K9EREPL_CLEAR_SQUEEZE : K9EREPL_CLEAR_LOGICAL;
        Expect("ClearOldRev", K9eReplStorageClearOldRev(m_client.Handle(), rev, mode));
    }

    // The first or a later write of a flush fails. The client commits again or rolls back; a
    // writing thread that failed is of no use any more, and the storage is opened again.
    void FailFlush() {
        u32 nth = 1 + m_random.Below(2);
        m_disk.SetGate([nth](const Attempt& attempt) mutable -> Permit {
            const bool strikes = attempt.call == test::SystemCall::kWrite &&
                                 attempt.name == StoragePath() && nth > 0 && --nth == 0;
            return strikes ? Permit{.error = test::SystemErrorKind::kNoSpace} : Permit{};
        });
        Expect("Begin", K9eReplStorageBeginTransaction(m_client.Handle()));
        Insert(1 + m_random.Below(60));
        u32 rc = K9eReplStorageCommit(m_client.Handle());
        SteadyCalls::Settle();
        m_disk.SetGate(nullptr);
        m_run.Count("failed flushes", rc == RC_OK ? 0 : 1);
        if (m_async) {
            Reopen();
        } else if (rc != RC_OK) {
            rc = m_random.OneIn(2) ? K9eReplStorageCommit(m_client.Handle())
                                   : K9eReplStorageRollback(m_client.Handle());
            Expect("Commit or Rollback", rc);
        }
    }

    // Notes are an aid: whatever they say, a range is right.
    void Damage() {
        for (const auto& [key, block] : Blocks().Blocks()) {
            const BlockNotes notes = Blocks().NotesOf(*block);
            for (u32 i = 0; i < notes.Count(); ++i) {
                BlockNote& note = notes.Notes()[i];
                switch (m_random.Below(8)) {
                    case 0:
                        note.rev += m_random.Below(9);
                        break;
                    case 1:
                        note.offset += m_random.Below(300);
                        break;
                    case 2:
                        std::swap(note, notes.Notes()[m_random.Below(notes.Count())]);
                        break;
                    default:
                        break;
                }
            }
        }
        for (const auto& [key, entry] : Blocks().Index()) {
            if (entry.block == nullptr && m_random.OneIn(3)) {
                std::vector<FileNote> notes;
                for (u32 i = 1; i < 4; ++i) {
                    notes.push_back({entry.firstRev + i * m_random.Below(20),
                                     i * m_random.OneOf<u32>({4096, 4500, 5000, 70'000})});
                }
                Blocks().NotesInFile().Put(key, std::move(notes));
                m_run.Count("blocks in the file with damaged notes");
            }
        }
    }

    Records Range(i64 from, i64 to) {
        Records records;
        const u32 rc = m_client.Enumerate(from, to, [&](const K9eReplRec& record) -> u32 {
            records.push_back({record.rev, record.dataSize,
                               record.dataSize == 0 ? u8{0} : static_cast<u8>(record.data[0])});
            return RC_OK;
        });
        Expect("EnumRecords", rc);
        return records;
    }

    void CompareRanges() {
        if (!IsOpen()) {
            m_problem += "the storage is not open; ";
            return;
        }
        const Records all = Range(0, std::numeric_limits<i64>::max());
        for (int i = 0; i < 12 && !all.empty() && m_problem.empty(); ++i) {
            const auto begin = all.begin() + m_random.Below(static_cast<u32>(all.size()));
            const i64 from = begin->rev - (m_random.OneIn(5) ? 3 : 0);
            const i64 to = from + m_random.OneOf<i64>({0, 1, 20, 200});
            const auto below = [](const Delivered& record, i64 rev) { return record.rev < rev; };
            const Records expected(std::lower_bound(all.begin(), all.end(), from, below),
                                   std::lower_bound(all.begin(), all.end(), to + 1, below));
            const Records got = Range(from, to);
            m_run.Count("ranges");
            if (got != expected) {
                m_problem += "range " + std::to_string(from) + " to " + std::to_string(to) + ": " +
                             std::to_string(got.size()) + " records, not " +
                             std::to_string(expected.size()) + "; ";
            }
        }
    }

    void Expect(const char* call, u32 rc) {
        if (rc != RC_OK) {
            m_problem += std::string(call) + " answers " + std::to_string(rc) + "; ";
        }
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    model::Random m_random;
    const bool m_async;
    std::string m_connString;
    model::StorageClient m_client;
    Problem m_problem;
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    for (u64 number = 0; number < kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return Mixture(run, disk, Mix(run.Seed(), number)).Run(); });
    }
}

const RegisteredFamily kFamily(
    {.name = "ranges",
     .title = "ranges against full enumerations, after mixtures, with damaged notes",
     .cases = 10000,
     .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
