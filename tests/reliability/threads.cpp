// The families that compare the writers, whose same operations leave the same data in the file,
// byte for byte, and the same backup; and that let clients, a reader, one that clears, one that
// flushes as an idle host does, and the library's own threads work on one storage, in an order that
// differs from seed to seed: what was committed is there at the end, and after reopenings.
#include <k9erepl/storage.h>

#include <atomic>
#include <thread>

#include "model/numbers.h"
#include "model/workout.h"
#include "reliability/family.h"
#include "reliability/oracle.h"
#include "reliability/slow_reader.h"
#include "reliability/steady_calls.h"
#include "reliability/workload.h"
#include "support/call_layer.h"
#include "support/temp_folder.h"

namespace k9erepl::reliability {

namespace {

constexpr u32 kPairsOfAGroup = 50;

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

void RunWriters(GroupRun& run) {
    const SteadyCalls steady;
    MemoryDisk disk;
    for (u64 number = 0; number < kPairsOfAGroup; ++number) {
        run.Case(number, [&] { return CompareWriters(run, disk, Mix(run.Seed(), number)); });
    }
}

const RegisteredFamily kWriters({.name = "sync-against-async",
                                 .title = "synchronous against asynchronous writer: the same bytes",
                                 .cases = 500,
                                 .runGroup = &RunWriters});

// --- Threads. Under ThreadSanitizer this family finds races, too.

constexpr u32 kCasesOfAGroup = 10;
constexpr u32 kRounds = 2;  // the second one begins with what the first one left
constexpr u32 kStepsMin = 50;
constexpr u32 kStepsMore = 200;

// Makes threads take turns at other places from seed to seed: with a probability that follows from
// the seed, every system call but those for clocks gives the processor away before and behind what
// it does. Which call yields follows from the seed and from the calls' order, which is the
// machine's: a seed that failed once may need several runs.
class YieldingCalls : test::CallLayer<YieldingCalls> {
  public:
    explicit YieldingCalls(u64 seed) : m_seed(seed), m_oneIn(u64{1} << Mix(seed, 0) % 5) {
        Wrap(test::FileEntries());
        Wrap(test::MemoryEntries());
        Wrap(test::ThreadEntries());
    }
    u64 Yields() const { return m_yields; }

  private:
    friend test::CallLayer<YieldingCalls>;

    // Behind a call, too, however it ends.
    struct YieldAtEnd {
        YieldAtEnd() = default;
        YieldAtEnd(const YieldAtEnd&) = delete;
        YieldAtEnd& operator=(const YieldAtEnd&) = delete;
        ~YieldAtEnd() { TheLayer().MayYield(); }
    };
    template <typename Call>
    static auto Around(Call call) {
        TheLayer().MayYield();
        const YieldAtEnd atEnd;
        return call();
    }

    void MayYield() {
        const u64 drawn = Mix(m_seed, m_calls.fetch_add(1, std::memory_order_relaxed));
        if (drawn % m_oneIn != 0) {
            return;
        }
        m_yields.fetch_add(1, std::memory_order_relaxed);
        for (u64 left = 1 + (drawn >> 32U) % kTurnsMax; left > 0; --left) {
            std::this_thread::yield();
        }
    }

    static constexpr u32 kTurnsMax = 4;  // given away at once
    const u64 m_seed;
    const u64 m_oneIn;
    // Relaxed: they must not order what the threads do.
    std::atomic<u64> m_calls{0};
    std::atomic<u64> m_yields{0};
};

std::string WorkAndCompare(GroupRun& run, u64 seed) {
    model::Random random(seed);
    // Files of the system: a lock of the memory disk's would order what the threads do.
    const test::TempFolder folder;
    const std::string path = folder.File("threads.edb");
    if (const u32 rc = K9eReplStorageCreate(("file=" + path).c_str(), 0); rc != RC_OK) {
        return "creating answers " + std::to_string(rc);
    }
    const YieldingCalls yielding(seed);
    model::Workout workout(path, {.clients = 1 + random.Below(2),
                                  .readers = 1,
                                  .clearers = 1,
                                  .idlers = 1,
                                  .async = random.OneIn(2)});
    for (u32 round = 0; round < kRounds && workout.Problem().empty(); ++round) {
        const u32 steps = kStepsMin + random.Below(kStepsMore);
        workout.Round(random.Below(1000), steps, random.Next());
        workout.Compare();
    }
    run.Count("yields", yielding.Yields());
    run.Count("committed", workout.Committed());
    run.Count("cleared", workout.Cleared());
    run.Count("enumerated", workout.Enumerated());
    run.Count("idle calls", workout.Idled());
    return workout.Problem();
}

void RunThreads(GroupRun& run) {
    for (u64 number = 0; number < kCasesOfAGroup; ++number) {
        run.Case(number, [&] { return WorkAndCompare(run, Mix(run.Seed(), number)); });
    }
}

const RegisteredFamily kThreads({.name = "threads",
                                 .title = "threads with seeded yields",
                                 .cases = 500,
                                 .runGroup = &RunThreads});

}  // namespace

}  // namespace k9erepl::reliability
