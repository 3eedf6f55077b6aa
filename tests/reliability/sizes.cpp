// The family of sizes: storages whose next record lies at the 2, 4 and 8 GiB borders, with one of
// its parts just below, at or just behind the border, and goes through the life of a storage there;
// and records of every size up to what is refused.
#include <algorithm>
#include <array>
#include <atomic>

#include "engine/storage_fixture.h"
#include "format/storage_file_format.h"
#include "model/choices.h"
#include "model/storage_client.h"
#include "reliability/family.h"
#include "reliability/large_image.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"

namespace k9erepl::reliability {

namespace {

constexpr i64 kGiB = i64{1} << 30;
constexpr std::array<i64, 3> kBorders = {2 * kGiB, 4 * kGiB, 8 * kGiB};
constexpr u32 kFirstStamp = 0x40000000;  // none that a large image has
constexpr u32 kRecordMax = 10 * 1024 * 1024 - kRecordHeadSize;

// Where the border lies in the item that the client writes there.
enum class Part { kHead, kData, kMiddle, kCommit, kEnd };
struct Place {
    Part part;
    i64 shift;  // bytes behind the border at which that part begins
};
constexpr std::array<Place, 9> kPlaces = {{{Part::kHead, -1},
                                           {Part::kHead, 0},
                                           {Part::kHead, 1},
                                           {Part::kData, 0},
                                           {Part::kMiddle, 0},
                                           {Part::kCommit, -1},
                                           {Part::kCommit, 0},
                                           {Part::kCommit, 1},
                                           {Part::kEnd, 0}}};

i64 BeginOf(Part part, u32 dataSize) {
    switch (part) {
        case Part::kHead:
            return 0;
        case Part::kData:
            return kRecordHeadSize;
        case Part::kMiddle:
            return i64{kRecordHeadSize} + dataSize / 2;
        case Part::kCommit:
            return i64{kRecordHeadSize} + dataSize;
        case Part::kEnd:
            return i64{kRecordHeadSize} + dataSize + kCommitBlockSize;
    }
    return 0;
}

model::PlannedRecord Planned(u32 dataSize, u32 seed) {
    return model::MakeRecord({model::SizeClass::kBytes, dataSize},
                             dataSize + model::kRecordOverhead, seed);
}

i64 OldestRev(const model::StorageClient& client) {
    auto* storage = static_cast<IK9eReplStorage*>(client.Handle());
    return StorageAccess::OldestRev(*static_cast<CK9eReplStorage*>(storage));
}

// One storage at one border.
class BorderLife {
  public:
    BorderLife(MemoryDisk& disk, i64 border, Place place, u64 seed)
        : m_disk(disk),
          m_random(seed),
          m_dataSize(2 + m_random.Below(300)),
          m_begin(border + place.shift - BeginOf(place.part, m_dataSize)),
          m_image(StoragePath(), m_begin) {
        m_settings.blockSize = kFillItemSize;
        m_settings.cacheBlocks = 1;
        m_settings.readBuffers = 1;
        m_settings.flushThreshold = 1;
        m_settings.async = m_random.OneIn(2);
        m_settings.forceFlush = m_random.OneIn(2);
        m_settings.deltaMebibytes = m_random.OneIn(3) ? 1 : 0;
        m_nearRev = m_image.LastRev();
        m_expected.records[m_nearRev] = m_image.RecordOf(m_nearRev);
        m_expected.nextRev = m_nearRev + 1;
    }

    // Which openings find no index and read the whole file: the first, which makes the index, and
    // one behind the border. Otherwise they find one that we made, and one that the library made.
    struct Scans {
        bool first;
        bool later;
    };
    Problem Run(const Scans& scans) {
        if (!scans.first) {
            m_image.AddIndex();
        }
        m_disk.Mount(m_image.Image());
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.SetGate([this](const Attempt& attempt) {
            m_read += attempt.call == test::SystemCall::kRead ? attempt.size : 0;
            return Permit();
        });
        Problem problem = Live(scans);
        m_disk.SetGate(nullptr);
        return problem;
    }

  private:
    using Deed = Problem (BorderLife::*)(model::StorageClient& client);

    struct Session {
        const char* name;
        bool scans;  // the load reads the whole file, because there is no index
        Deed deed;
    };

    Problem Live(const Scans& scans) {
        if (Problem problem = Open({"first", scans.first, &BorderLife::Append}); !problem.empty()) {
            return problem;
        }
        const std::array<Session, 4> sessions = {
            {{"with an index", false, &BorderLife::ClearLogically},
             {"cleared", false, &BorderLife::AppendOne},
             {"appended", scans.later, &BorderLife::Nothing},
             {"before the squeeze", false, &BorderLife::Squeeze}}};
        for (const Session& session : sessions) {
            if (Problem problem = Open(session); !problem.empty()) {
                return problem;
            }
        }
        Problem problem = Open({"squeezed", false, &BorderLife::AppendOne});
        return problem.empty() ? Open({"in the end", false, &BorderLife::Nothing}) : problem;
    }

    Problem Open(const Session& session) {
        if (session.scans) {
            platform::TheSystemCalls().removeFile((StoragePath() + "-idx").c_str());
        }
        const i64 size = m_disk.Image().Find(StoragePath())->Size();
        m_read = 0;
        model::StorageClient client;
        u32 rc = client.Open(m_settings.ConnString(StoragePath()));
        rc = rc == RC_OK ? K9eReplStorageLoad(client.Handle()) : rc;
        const bool scanned = m_read >= static_cast<u64>(size - kFirstCommitOffset);
        const bool isSmall = size < 10 * i64{kFillItemSize};
        Problem problem = rc != RC_OK ? "answers " + std::to_string(rc)
                          : !isSmall && scanned != session.scans
                              ? "reads " + std::to_string(m_read) + " bytes"
                              : Look(client);
        problem = problem.empty() ? (this->*session.deed)(client) : problem;
        problem = problem.empty() ? Look(client) : problem;
        client.Close();
        problem = problem.empty() ? CheckWritten(client) : problem;
        return problem.empty() ? "" : std::string(session.name) + ": " + problem;
    }

    // --- What a session does

    Problem Nothing(model::StorageClient& /*client*/) { return ""; }

    // The first record lies at the border; a large one drives what lies there out of memory.
    Problem Append(model::StorageClient& client) {
        const i64 gap = m_expected.nextRev + 2 + m_random.Below(1000);
        Problem problem = Insert(client, m_dataSize, nullptr);
        problem = problem.empty() ? Insert(client, 0, nullptr) : problem;
        problem = problem.empty() ? Insert(client, 1, &gap) : problem;
        problem = problem.empty() ? Insert(client, kRecordMax, nullptr) : problem;
        return problem.empty() ? AppendOne(client) : problem;
    }

    Problem AppendOne(model::StorageClient& client) {
        return Insert(client, m_random.Below(300), nullptr);
    }

    Problem ClearLogically(model::StorageClient& client) {
        return Clear(client, K9EREPL_CLEAR_LOGICAL);
    }

    Problem Squeeze(model::StorageClient& client) { return Clear(client, K9EREPL_CLEAR_SQUEEZE); }

    // The record at the border becomes the oldest one.
    Problem Clear(model::StorageClient& client, u32 mode) {
        const i64 rev = m_image.LastRev() + 1;
        const u32 rc = K9eReplStorageClearOldRev(client.Handle(), rev, mode);
        m_expected.records.erase(m_expected.records.begin(), m_expected.records.lower_bound(rev));
        m_oldestKnown = true;
        m_expected.oldestRev = rev;
        m_nearRev = model::kLowestRev;  // nothing is left in front
        return rc == RC_OK ? "" : "clearing answers " + std::to_string(rc);
    }

    Problem Insert(model::StorageClient& client, u32 dataSize, const i64* prepared) {
        const model::PlannedRecord planned = Planned(dataSize, static_cast<u32>(m_random.Next()));
        i64 rev = 0;
        const u32 rc = client.Insert(planned, prepared, &rev);
        if (rc != RC_OK || rev != (prepared != nullptr ? *prepared : m_expected.nextRev)) {
            return "inserting answers " + std::to_string(rc) + ", revision " + std::to_string(rev);
        }
        m_expected.records[rev] = planned.record;
        m_expected.nextRev = rev + 1;
        return "";
    }

    // --- What is seen

    Problem Look(const model::StorageClient& client) {
        Seen seen;
        seen.nextRev = client.NextRev();
        seen.oldestRev = OldestRev(client);
        if (!m_oldestKnown) {
            m_oldestKnown = true;
            m_expected.oldestRev = seen.oldestRev;
        }
        Problem problem = Read(client, m_nearRev, model::kHighestRev, &seen.records);
        if (problem.empty() && seen != m_expected) {
            problem = "shows " + Describe(seen) + "; expected " + Describe(m_expected);
        }
        return problem.empty() ? LookOneByOne(client) : problem;
    }

    // Ranges of one revision, over the border and at the file's beginning.
    Problem LookOneByOne(const model::StorageClient& client) {
        model::Records expected = m_expected.records;
        if (m_nearRev != model::kLowestRev) {
            expected[1] = m_image.RecordOf(1);
        }
        for (const auto& [rev, record] : expected) {
            model::Records records;
            Problem problem = Read(client, rev, rev, &records);
            if (problem.empty() && (records.size() != 1 || records.begin()->second != record)) {
                problem = "revision " + std::to_string(rev) + " by itself is another";
            }
            if (!problem.empty()) {
                return problem;
            }
        }
        return "";
    }

    static Problem Read(const model::StorageClient& client, i64 from, i64 to,
                        model::Records* records) {
        const u32 rc = client.Enumerate(from, to, [records](const K9eReplRec& record) {
            const auto* data = reinterpret_cast<const char*>(record.data);
            (*records)[i64{record.rev}] = {record.userWord, std::string(data, record.dataSize)};
            return u32{RC_OK};
        });
        return rc == RC_OK ? "" : "enumerating answers " + std::to_string(rc);
    }

    // Everything was written when the storage was closed, and the file ends where it should.
    Problem CheckWritten(model::StorageClient& client) {
        const std::vector<i64> flushed = client.TakeFlushed();
        const std::optional<i64> written = client.Writer().Get().rev;
        const i64 lastRev = m_expected.nextRev - 1;
        if (!flushed.empty() && (flushed.back() != lastRev || written != lastRev)) {
            return "flushed to " + std::to_string(flushed.back()) + ", written to " +
                   std::to_string(written.value_or(0)) + " of " + std::to_string(lastRev);
        }
        return "";
    }

    MemoryDisk& m_disk;
    model::Random m_random;
    const u32 m_dataSize;  // of the record at the border
    const i64 m_begin;     // where that begins
    LargeImage m_image;
    model::Settings m_settings;
    i64 m_nearRev = 0;  // from here on records are compared
    Seen m_expected;
    bool m_oldestKnown = false;
    std::atomic<u64> m_read{0};  // bytes asked for since the session began
};

// Records of one size, in a storage of their own.
struct SizeCase {
    u32 blockSize;
    u32 dataSize;
    bool refused;
};
constexpr u32 kBlock = 65536;
constexpr u32 kLargeBlock = 12 * 1024 * 1024;
constexpr std::array<SizeCase, 12> kSizes = {{{kBlock, 0, false},
                                              {kBlock, 1, false},
                                              {kBlock, kBlock - 25, false},
                                              {kBlock, kBlock - 24, false},
                                              {kBlock, kBlock - 23, true},
                                              {kBlock, kBlock, true},
                                              {kLargeBlock, kRecordMax, false},
                                              {kLargeBlock, kRecordMax + 1, true},
                                              {kLargeBlock, 0x7FFFFFFF, true},
                                              {kLargeBlock, 0x80000000, true},  // -2^31
                                              {kLargeBlock, 0xFFFFFFE8, true},  // -24: 0 in all
                                              {kLargeBlock, 0xFFFFFFFF, true}}};

class SizeLife {
  public:
    SizeLife(MemoryDisk& disk, const SizeCase& size, u64 seed)
        : m_disk(disk), m_size(size), m_random(seed) {
        m_settings.blockSize = size.blockSize;
        m_settings.cacheBlocks = 1;
        m_settings.async = m_random.OneIn(2);
        m_settings.flushThreshold = m_random.OneOf({1, 3});
    }

    Problem Run() {
        const std::string connString = m_settings.ConnString(StoragePath());
        SteadyCalls::SetStamp(kFirstStamp);
        m_disk.Mount({});
        u32 rc = K9eReplStorageCreate(connString.c_str(), 0);
        Problem problem = rc == RC_OK ? Fill(connString) : "creating answers " + std::to_string(rc);
        for (u32 round = 0; round < 3 && problem.empty(); ++round) {
            if (round == 2) {
                platform::TheSystemCalls().removeFile((StoragePath() + "-idx").c_str());
            }
            Seen seen;
            problem = Visit(connString, {}, &seen);
            m_expected.oldestRev = round == 0 ? seen.oldestRev : m_expected.oldestRev;
            if (problem.empty() && seen != m_expected) {
                problem = "shows " + Describe(seen) + "; expected " + Describe(m_expected);
            }
        }
        return problem;
    }

  private:
    // The record between others: alone, under a revision of its own, in a transaction.
    Problem Fill(const std::string& connString) {
        model::StorageClient client;
        u32 rc = client.Open(connString);
        rc = rc == RC_OK ? K9eReplStorageLoad(client.Handle()) : rc;
        Problem problem = rc == RC_OK ? "" : "opening answers " + std::to_string(rc);
        for (const bool isPrepared : {false, true}) {
            problem = problem.empty() ? Insert(client, 10, false) : problem;
            problem = problem.empty() ? InsertTheOne(client, isPrepared, false) : problem;
        }
        if (problem.empty()) {
            K9eReplStorageBeginTransaction(client.Handle());
            problem = Insert(client, 20, false);
            problem = problem.empty() ? InsertTheOne(client, true, true) : problem;
            problem = problem.empty() ? Insert(client, 30, true) : problem;
            rc = K9eReplStorageCommit(client.Handle());
            problem = problem.empty() && rc != RC_OK ? "committing answers " + std::to_string(rc)
                                                     : problem;
        }
        return problem;
    }

    Problem InsertTheOne(model::StorageClient& client, bool isPrepared, bool inTransaction) {
        model::PlannedRecord planned;
        planned.dataSize = m_size.dataSize;
        planned.record.userWord = static_cast<u32>(m_random.Next());
        if (m_size.dataSize <= kLargeBlock) {
            planned = Planned(m_size.dataSize, planned.record.userWord);
        }
        const i64 prepared = m_expected.nextRev + (inTransaction ? 0 : 5);
        i64 rev = 0;
        const u32 rc = client.Insert(planned, isPrepared ? &prepared : nullptr, &rev);
        if (rc != (m_size.refused ? RC_INVALID_ARG : RC_OK)) {
            return "inserting it answers " + std::to_string(rc);
        }
        if (!m_size.refused) {
            m_expected.records[rev] = planned.record;
            m_expected.nextRev = rev + 1;
        } else if (inTransaction) {
            m_expected.nextRev = client.NextRev();  // the revision is used up
        }
        return client.NextRev() == m_expected.nextRev
                   ? ""
                   : "next revision is " + std::to_string(client.NextRev());
    }

    Problem Insert(model::StorageClient& client, u32 dataSize, bool behindGap) {
        const model::PlannedRecord planned = Planned(dataSize, static_cast<u32>(m_random.Next()));
        i64 rev = 0;
        const u32 rc = client.Insert(planned, nullptr, &rev);
        if (rc != RC_OK || (rev != m_expected.nextRev && !behindGap)) {
            return "inserting answers " + std::to_string(rc) + ", revision " + std::to_string(rev);
        }
        m_expected.records[rev] = planned.record;
        m_expected.nextRev = rev + 1;
        return "";
    }

    MemoryDisk& m_disk;
    const SizeCase m_size;
    model::Random m_random;
    model::Settings m_settings;
    Seen m_expected{.records = {}, .nextRev = 1, .oldestRev = 0, .lifenum = 0, .mark = 0};
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
    u32 rc = K9eReplStorageCreate(file.c_str(), 0);
    for (const Refusal& refusal : kRefusals) {
        for (const char* number : {"-1", "-2147483648", "-99999999999"}) {
            const std::string setting = std::string(refusal.setting) + "=" + number;
            model::StorageClient client;
            rc = client.Open(setting + file);
            client.Close();
            if (rc != refusal.code || disk.OpenFiles() != 0) {
                return setting + " answers " + std::to_string(rc) + ", leaves " +
                       std::to_string(disk.OpenFiles()) + " files open";
            }
        }
    }
    return "";
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    u64 number = 0;
    for (std::size_t place = 0; place < kPlaces.size(); ++place) {
        for (const i64 border : kBorders) {
            ++number;
            const u64 turn = (place + run.Number()) % 3;  // scans take nearly all the time
            const BorderLife::Scans scans{border < kBorders.back() || turn == 0,
                                          border == kBorders.front() || turn == 1};
            run.Case(number, [&] {
                return BorderLife(disk, border, kPlaces.at(place), Mix(run.Seed(), number))
                    .Run(scans);
            });
        }
    }
    for (const SizeCase& size : kSizes) {
        ++number;
        run.Case(number, [&] { return SizeLife(disk, size, Mix(run.Seed(), number)).Run(); });
    }
    run.Case(number + 1, [&] { return RefuseNegativeSettings(disk); });
}

const RegisteredFamily kFamily({.name = "sizes",
                                .title = "2, 4 and 8 GiB borders, records of every size",
                                .cases = 40,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
