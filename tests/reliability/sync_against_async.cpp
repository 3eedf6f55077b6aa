// The family that compares the writers: the same operations leave the same data in the file, byte
// for byte, and the same backup.
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/slow_reader.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kCasesOfAGroup = 50;

// Up to the last commit block. Behind it lie bytes that were rolled back, which an asynchronous
// writer need not have written, and zeros, which depend on the sizes of writes.
std::string DataOf(const DiskImage& image, const std::string& name) {
    const FileBytes* file = image.Find(name);
    if (file == nullptr) {
        return "";
    }
    const std::string bytes = file->Whole();
    return bytes.substr(0, ScanSlowly(bytes).validEnd);
}

Problem Compare(const std::string& sync, const std::string& async) {
    if (sync == async) {
        return "";
    }
    const auto [at, other] = std::mismatch(sync.begin(), sync.end(), async.begin(), async.end());
    return std::to_string(sync.size()) + " bytes of the one, " + std::to_string(async.size()) +
           " of the other, different from " + std::to_string(at - sync.begin()) + " on";
}

Problem CompareWriters(GroupRun& run, MemoryDisk& disk, u64 seed) {
    model::Random random(seed);
    WorkloadPlan plan{.operations = 20 + random.Below(60), .moreSettings = ""};
    plan.forceFlush = random.OneIn(4);
    plan.commitBarrier = plan.forceFlush && random.OneIn(2);
    const History sync = MakeHistory(disk, plan, seed);
    const DiskImage bySync = disk.Image();
    plan.async = true;
    const History async = MakeHistory(disk, plan, seed);
    const DiskImage byAsync = disk.Image();
    if (!sync.problem.empty() || !async.problem.empty()) {
        return sync.problem + "; " + async.problem;
    }
    for (const std::string& name : {StoragePath(), StoragePath() + ".backup"}) {
        const std::string data = DataOf(bySync, name);
        run.Count("bytes compared", data.size());
        if (Problem problem = Compare(data, DataOf(byAsync, name)); !problem.empty()) {
            return name + ": " + problem;
        }
    }
    return "";
}

void RunGroup(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    for (u64 number = 0; number < kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return CompareWriters(run, disk, Mix(run.Seed(), number)); });
    }
}

const RegisteredFamily kFamily({.name = "sync-against-async",
                                .title = "synchronous against asynchronous writer: the same bytes",
                                .cases = 500,
                                .runGroup = &RunGroup});

}  // namespace

}  // namespace k9erepl::reliability
