// The family of readers beside a writer. What a writer once did to the disk happens again, a piece
// at a time, between the calls of a reader and in the middle of its reads: every load must give a
// content that the storage had in the meantime, and every enumeration what was loaded, or end with
// an error.
#include <algorithm>

#include "reliability/crash_images.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 50;
constexpr u32 kRounds = 6;
constexpr i64 kInPlace = 1064;  // in front of it a writer overwrites; sectors are written whole
constexpr u32 kSectorSize = 512;

// The changes of a recorded run, in pieces: writes come into sight from their beginning on.
class Writer {
  public:
    Writer(const Changes& changes, std::size_t done, u64 seed)
        : m_changes(changes), m_done(done), m_random(seed) {}

    bool HasEnded() const { return m_done == m_changes.size(); }
    // Changes that are complete, and whether a part of the next one was made.
    std::size_t Done() const { return m_done; }
    bool IsInside() const { return m_cut > 0; }

    Changes Next(std::size_t count) {
        Changes pieces;
        while (pieces.size() < count && !HasEnded()) {
            pieces.push_back(NextPiece());
        }
        return pieces;
    }
    Changes Rest() { return Next(m_changes.size() * 4); }

  private:
    Change NextPiece() {
        const Change& change = m_changes[m_done];
        const auto size = static_cast<u32>(change.bytes.size());
        const u32 end = change.kind == ChangeKind::kWrite ? CutBehind(change, size) : size;
        Change piece = change;
        piece.at += m_cut;
        piece.bytes = change.bytes.substr(m_cut, end - m_cut);
        m_cut = end == size ? 0 : end;
        m_done += m_cut == 0 ? 1 : 0;
        return piece;
    }
    u32 CutBehind(const Change& write, u32 size) {
        if (m_random.OneIn(3)) {
            return size;
        }
        u32 end = m_cut + 1 + m_random.Below(size - m_cut);
        if (write.at + end < kInPlace) {
            end = (end + kSectorSize - 1) / kSectorSize * kSectorSize;
        }
        return std::min(end, size);
    }

    const Changes& m_changes;
    std::size_t m_done;
    u32 m_cut = 0;
    model::Random m_random;
};

class ReaderBesideWriter {
  public:
    ReaderBesideWriter(GroupRun& run, MemoryDisk& disk, const History& history, u64 seed)
        : m_run(run),
          m_disk(disk),
          m_history(history),
          m_random(seed),
          m_begin(m_random.Below(static_cast<u32>(history.changes.size()) + 1)),
          m_writer(history.changes, m_begin, m_random.Next()) {}
    ~ReaderBesideWriter() {
        m_client.Close();
        m_disk.SetGate(nullptr);
    }
    ReaderBesideWriter(const ReaderBesideWriter&) = delete;
    ReaderBesideWriter& operator=(const ReaderBesideWriter&) = delete;

    Problem Run() {
        m_disk.Mount(ImageMaker(m_history.base, m_history.changes).At({m_begin, 0}));
        m_disk.SetGate([this](const Attempt& attempt) { return Let(attempt); });
        const std::string check = m_random.OneIn(4) ? "check=yes;" : "";
        const std::string connString = "read_only=yes;" + check + m_history.ConnString();
        if (const u32 rc = m_client.Open(connString); rc != RC_OK) {
            return "opening answers " + std::to_string(rc);
        }
        for (u32 round = 0; round < kRounds; ++round) {
            if (Problem problem = LoadAndRead(); !problem.empty()) {
                return problem;
            }
            m_waiting = m_random.OneIn(2) ? m_random.Below(200) : 0;
        }
        m_waiting = kEverything;
        return LoadAndRead();
    }

  private:
    static constexpr std::size_t kEverything = static_cast<std::size_t>(-1);

    static u32 GoOn(const K9eReplRec& /*record*/) { return RC_OK; }

    // The disk asks before each call of the reader.
    Permit Let(const Attempt& attempt) {
        Permit permit;
        if (m_waiting == kEverything) {
            permit.others = m_writer.Rest();
        } else if (m_waiting > 0) {
            permit.others = m_writer.Next(m_waiting);
        } else if (m_writes && m_random.OneIn(m_pace)) {
            permit.others = m_writer.Next(1 + m_random.Below(4));
        }
        m_waiting = 0;
        if (m_writes && attempt.call == test::SystemCall::kRead && attempt.size > 1) {
            permit.sizeMax = 1 + m_random.Below(attempt.size);
        }
        return permit;
    }

    Problem LoadAndRead() {
        m_pace = 1 + m_random.Below(20);
        const StateRange from = m_history.AfterKill(m_writer.Done());
        m_writes = true;
        u32 rc = K9eReplStorageLoad(m_client.Handle());
        m_writes = false;
        // The writer may have started over behind the load's last look at the file.
        if (rc == RC_OK && m_client.Enumerate(1, model::kHighestRev, GoOn) == RC_WRONG_STATE) {
            m_run.Count("loads outdated at once");
            rc = K9eReplStorageLoad(m_client.Handle());
        }
        if (rc != RC_OK) {
            return "loading answers " + std::to_string(rc);
        }
        const StateRange to = m_history.AfterKill(m_writer.Done(), m_writer.IsInside());
        Seen seen;
        if (Problem problem = Read(m_client, &seen); !problem.empty()) {
            return problem;
        }
        if (Problem problem = JudgeByStates(m_history, {from.low, to.high}, seen);
            !problem.empty()) {
            return problem;
        }
        m_run.Count("loads");
        return ReadWhileItGoesOn(seen.records);
    }

    Problem ReadWhileItGoesOn(const model::Records& loaded) {
        const i64 from = loaded.empty() ? 1 : loaded.begin()->first + m_random.Below(20);
        auto next = loaded.lower_bound(from);
        bool isRight = true;
        m_writes = true;
        const u32 rc = m_client.Enumerate(from, model::kHighestRev, [&](const K9eReplRec& record) {
            const auto* data = reinterpret_cast<const char*>(record.data);
            isRight =
                isRight && next != loaded.end() && next->first == record.rev &&
                next->second == model::Record{record.userWord, std::string(data, record.dataSize)};
            next = isRight ? std::next(next) : next;
            return u32{RC_OK};
        });
        m_writes = false;
        if (!isRight) {
            return "an enumeration gives what was not loaded";
        }
        if (rc == RC_OK) {
            return next == loaded.end() ? "" : "an enumeration ends too early";
        }
        m_run.Count("enumerations ended by the writer");
        return rc == RC_WRONG_STATE ? "" : "an enumeration answers " + std::to_string(rc);
    }

    GroupRun& m_run;
    MemoryDisk& m_disk;
    const History& m_history;
    model::Random m_random;
    const std::size_t m_begin;
    Writer m_writer;
    model::StorageClient m_client;
    bool m_writes = false;      // between the reader's calls
    u32 m_pace = 1;             // in one of so many calls
    std::size_t m_waiting = 0;  // pieces that come before the next call in any case
};

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    const History history = MakeHistory(disk, run);
    for (u64 number = 1; number <= kCasesOfAGroup; ++number) {
        run.Case(number, [&] {
            return ReaderBesideWriter(run, disk, history, Mix(run.Seed(), number)).Run();
        });
    }
}

const RegisteredFamily kFamily({.name = "read-only",
                                .title = "a reader beside a writer, with changes inside its reads",
                                .cases = 2000,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
