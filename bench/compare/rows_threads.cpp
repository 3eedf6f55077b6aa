// The rows with several threads on one storage: what writers and readers lose to its lock, and to
// one another on few processors. One thread alone is the limit.
#include <fmt/format.h>

#include <atomic>
#include <random>
#include <thread>

#include "compare/row.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

constexpr int kRecords = 200'000;  // before the threads begin; ranges lie among them
constexpr i64 kInRange = 100;

struct Counts {
    std::atomic<i64> inserted{0};  // records
    std::atomic<i64> read{0};      // ranges
};

void Write(void* handle, const std::atomic<bool>& stop, Counts* counts) {
    BenchRecord record;
    while (!stop) {
        Require(K9eReplStorageInsert(handle, record.Get()) == RC_OK, "inserting");
        counts->inserted.fetch_add(1, std::memory_order_relaxed);
    }
}

void Read(void* handle, unsigned seed, const std::atomic<bool>& stop, Counts* counts) {
    std::mt19937 random(seed);
    std::uniform_int_distribution<i64> places(1, kRecords - kInRange);
    while (!stop) {
        Enumerate(handle, places(random), kInRange);
        counts->read.fetch_add(1, std::memory_order_relaxed);
    }
}

// Lets the threads work for a while. Returns microseconds for one record of all writers or, if
// `ofReaders`, for one range of all readers.
double Share(const Context& context, int writers, int readers, bool ofReaders) {
    const OurStorage storage(context.memoryFolder,
                             std::string(kAppendSettings) + "cache_type=AllInMem");
    Append(storage.Handle(), kRecords);
    Counts counts;
    std::atomic<bool> stop{false};
    std::vector<std::jthread> threads;
    const Stopwatch watch;
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&] { Write(storage.Handle(), stop, &counts); });
    }
    for (int reader = 0; reader < readers; ++reader) {
        threads.emplace_back(
            [&, reader] { Read(storage.Handle(), static_cast<unsigned>(reader), stop, &counts); });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(context.quick ? 100 : 500));
    stop = true;
    threads.clear();
    const auto done = static_cast<double>(ofReaders ? counts.read : counts.inserted);
    return watch.Microseconds() / std::max(done, 1.0);
}

void AddTogetherRows(const Context& context, Rows* rows) {
    const auto share = [context](int writers, int readers, bool ofReaders) {
        return [=] { return Share(context, writers, readers, ofReaders); };
    };
    Row records;
    records.id = "threads-writers";
    records.title = "two writers beside four readers: a record";
    records.unit = "µs a record";
    records.limit = "one writer alone";
    records.contenders = {{"limit", Role::kLimit, share(1, 0, false)},
                          {"this library", Role::kOurs, share(2, 4, false)},
                          {"two writers alone", Role::kVariant, share(2, 0, false)}};
    rows->push_back(std::move(records));

    Row ranges;
    ranges.id = "threads-readers";
    ranges.title = "four readers beside two writers: a range of 100";
    ranges.unit = "µs a range";
    ranges.limit = "one reader alone";
    ranges.contenders = {{"limit", Role::kLimit, share(0, 1, true)},
                         {"this library", Role::kOurs, share(2, 4, true)},
                         {"two readers alone", Role::kVariant, share(0, 2, true)},
                         {"four readers alone", Role::kVariant, share(0, 4, true)}};
    rows->push_back(std::move(ranges));
}

}  // namespace

void AddThreadRows(const Context& context, Rows* rows) {
    AddTogetherRows(context, rows);
}

}  // namespace k9erepl::bench
