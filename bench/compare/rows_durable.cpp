// The rows that wait for the disk, or must not wait for it: commits that are flushed to the disk,
// and commits of the asynchronous writer while its thread writes.
#include <fmt/format.h>

#include "compare/peer.h"
#include "compare/posix/raw_file.h"
#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr u64 kGrown = 64u << 20;
constexpr const char* kForced = "flush_mode=PerTrans;flush_trans_num=1;force_flush=yes;";
constexpr const char* kGrownAhead = "file_initial_size=64;file_size_delta=64;";

// Returns the median of so many commits in microseconds.
double TimeCommits(i64 commits, const std::function<void()>& commit) {
    return MedianOf(static_cast<int>(commits), [&] {
        const Stopwatch watch;
        commit();
        return watch.Microseconds();
    });
}

double WriteAndFlush(const std::string& folder, i64 commits, int perTransaction) {
    const BenchFile file(folder);
    RawFile written(file.Path(), RawFile::Mode::kCreate);
    written.GrowTo(kGrown);
    written.SyncData();
    const std::vector<u8> transaction(static_cast<std::size_t>(perTransaction) * kRecordSize +
                                      kCommitSize);
    return TimeCommits(commits, [&] {
        written.Write(transaction.data(), transaction.size());
        written.SyncData();
    });
}

double ForcedCommits(const std::string& folder, i64 commits, int perTransaction,
                     const std::string& settings) {
    const OurStorage storage(folder, kForced + settings);
    return TimeCommits(commits, [&] { Append(storage.Handle(), perTransaction, perTransaction); });
}

double PeerCommits(const std::string& folder, const PeerKind& kind, i64 commits,
                   int perTransaction) {
    const BenchFile file(folder);
    const std::unique_ptr<Peer> peer = kind.make(file.Folder(), Durability::kDisk);
    const std::string data(kDataSize, 'x');
    i64 rev = 1;
    return TimeCommits(commits, [&] {
        peer->Append(rev, perTransaction, data);
        rev += perTransaction;
    });
}

void AddForcedRow(const Context& context, int perTransaction, Rows* rows) {
    const std::string folder = context.diskFolder;
    const i64 commits = context.Scaled(300);
    const auto ours = [=](const std::string& settings) {
        return [=] { return ForcedCommits(folder, commits, perTransaction, settings); };
    };
    const std::string grown = kGrownAhead;
    Row row;
    row.id = fmt::format("forced-{}", perTransaction);
    row.title = fmt::format("commit on the disk, {} a transaction", perTransaction);
    row.unit = "µs a commit";
    row.limit = "write(2) and fdatasync(2) into a file grown ahead";
    row.contenders = {
        {"limit", Role::kLimit, [=] { return WriteAndFlush(folder, commits, perTransaction); }},
        {"this library", Role::kOurs, ours(grown)},
        {"without file_size_delta", Role::kVariant, ours("")},
        {"with block_size=4096", Role::kVariant, ours(grown + "block_size=4096")}};
    for (const PeerKind& peer : Peers()) {
        row.contenders.push_back({peer.name, Role::kPeer, [=] {
                                      return PeerCommits(folder, peer, commits, perTransaction);
                                  }});
    }
    if (perTransaction == 1) {
        row.marks = {{Mark::Kind::kTimesLimit, 1.1, ""}};
    }
    rows->push_back(std::move(row));
}

// Commits transactions of 10 records, a tenth of a millisecond apart, so that the disk keeps up.
// Returns the `share` of the times of Commit in microseconds.
double PacedCommits(const std::string& folder, i64 commits, double share,
                    const std::string& settings) {
    constexpr double kPaceUs = 100;
    constexpr int kInTransaction = 10;
    const OurStorage storage(
        folder,
        "flush_mode=PerTrans;flush_trans_num=1;file_size_delta=16;write_through=yes;" + settings);
    BenchRecord record;
    std::vector<double> times;
    bool ok = true;
    for (i64 done = 0; done < commits; ++done) {
        const Stopwatch pace;
        ok = K9eReplStorageBeginTransaction(storage.Handle()) == RC_OK && ok;
        for (int inserted = 0; inserted < kInTransaction; ++inserted) {
            ok = K9eReplStorageInsert(storage.Handle(), record.Get()) == RC_OK && ok;
        }
        const Stopwatch watch;
        ok = K9eReplStorageCommit(storage.Handle()) == RC_OK && ok;
        times.push_back(watch.Microseconds());
        while (pace.Microseconds() < kPaceUs) {
        }
    }
    Require(ok, "committing");
    return Percentile(std::move(times), share);
}

void AddAsyncRow(const Context& context, const char* id, const char* title, double share,
                 double atMost, Rows* rows) {
    const std::string folder = context.diskFolder;
    const i64 commits = context.Scaled(4'000);
    Row row;
    row.id = id;
    row.title = title;
    row.unit = "µs a commit";
    row.contenders = {{"this library", Role::kOurs,
                       [=] { return PacedCommits(folder, commits, share, "async_mode=yes"); }},
                      {"async_mode=no", Role::kVariant,
                       [=] { return PacedCommits(folder, commits / 10, share, "async_mode=no"); }}};
    row.marks = {{Mark::Kind::kAtMost, atMost, ""}};
    rows->push_back(std::move(row));
}

}  // namespace

void AddDurableRows(const Context& context, Rows* rows) {
    AddForcedRow(context, 1, rows);
    AddForcedRow(context, 100, rows);
    AddAsyncRow(context, "async-median", "asynchronous commit, write_through, median", 0.5, 0.8,
                rows);
    AddAsyncRow(context, "async-999", "asynchronous commit, write_through, 99.9 %", 0.999, 20,
                rows);
}

}  // namespace k9erepl::bench
