// The model-based test as part of every test run: 200 seeds of 2,000 operations, under Wine 40,
// under a sanitizer 20, in groups that may run side by side. A failure prints the seed, a shortened
// script and how to replay it. And the work of several threads, meant for ThreadSanitizer.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <set>

#include "model/seed_run.h"
#include "model/workout.h"
#include "support/call_layer.h"
#include "support/temp_folder.h"

namespace k9erepl::model {

namespace {

using Numbers = std::vector<std::size_t>;

constexpr u64 kSeedsPerGroup = K9EREPL_MODEL_GROUP_SEEDS;
constexpr std::size_t kOperations = 2000;

// Nothing here is about the disk, which would take most of the time.
class NoFlushes : test::CallLayer<NoFlushes> {
  public:
    NoFlushes() {
        Take<&test::CallTable::flushFile, &NoFlushes::FlushFile>();
        Take<&test::CallTable::flushDirectory, &NoFlushes::FlushDirectory>();
    }

  private:
    friend test::CallLayer<NoFlushes>;
    bool FlushFile(platform::NativeFile /*file*/) { return true; }
    bool FlushDirectory(const char* /*path*/) { return true; }
};

class ModelGroup : public ::testing::TestWithParam<u64> {
  protected:
    ModelGroup() { KeepQuiet(); }

  private:
    const NoFlushes m_noFlushes;
};

TEST_P(ModelGroup, AgreesWithTheLibrary) {
    for (u64 i = 0; i < kSeedsPerGroup; ++i) {
        const u64 seed = GetParam() * kSeedsPerGroup + i;
        // Before the run: should it end the process, the last one told is the one.
        std::cout << "model_run --seed " << seed << " --operations " << kOperations << std::endl;
        const std::string report = RunAndReport(
            {.seed = seed, .operations = kOperations, .only = {}, .async = {}}, &RunHere);
        EXPECT_TRUE(report.empty()) << report;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ModelGroup, ::testing::Range<u64>(0, 20));

// --- Scripts follow from their seeds, and a report's command leads back to its script.

std::vector<std::string> Lines(const Script& script) {
    std::vector<std::string> lines;
    for (const Operation& operation : script) {
        lines.push_back(Describe(operation));
    }
    return lines;
}

TEST(MakeScript, BeginsAlikeWhateverItsLength) {
    const std::vector<std::string> shorter = Lines(MakeScript(7, 50));
    std::vector<std::string> longer = Lines(MakeScript(7, 200));
    longer.resize(50);
    EXPECT_EQ(shorter, longer);
    EXPECT_NE(shorter, Lines(MakeScript(8, 50)));
}

TEST(MakeScript, OpensEverySettingInTurnWithBothWriters) {
    std::set<std::string> opened;
    for (u64 seed = 0; seed < CombinationCount(); ++seed) {
        const Settings settings = MakeScript(seed, 1).front().reopen.settings;
        opened.insert(std::to_string(static_cast<int>(settings.kind)) + "/" +
                      std::to_string(settings.cacheBlocks) + "/" +
                      std::to_string(settings.blockSize) + "/" +
                      std::to_string(static_cast<int>(settings.flushBy)));
        EXPECT_NE(RunsAsync(seed), RunsAsync(seed + CombinationCount())) << seed;
    }
    // Four caches, five block sizes and two ways to flush; five block sizes twice without a file.
    EXPECT_EQ(opened.size(), 4U * 5 * 2 + 5 * 2);
}

TEST(ScriptOf, MayUseOneWriterOnly) {
    for (const bool async : {false, true}) {
        for (const Operation& operation :
             ScriptOf({.seed = 7, .operations = 500, .only = {}, .async = async})) {
            EXPECT_EQ(operation.reopen.settings.async, async) << Describe(operation);
        }
    }
}

TEST(ScriptOf, TakesTheNumberedOperationsOnly) {
    const Script all = MakeScript(7, 50);
    const Script some = ScriptOf({.seed = 7, .operations = 50, .only = {0, 3, 4, 48}, .async = {}});
    EXPECT_EQ(Lines(some), Lines({all[0], all[3], all[4], all[48]}));
    EXPECT_EQ(FormatNumbers(some), "0,3-4,48");
    Numbers numbers;
    EXPECT_TRUE(ParseNumbers("0,3-4,48", &numbers));
    EXPECT_EQ(numbers, (Numbers{0, 3, 4, 48}));
}

TEST(ParseNumbers, WantsRisingNumbers) {
    for (const char* text : {"", "3,2", "5-4", "1,", "a", "1;2", "1-2-3", "-1"}) {
        Numbers numbers;
        EXPECT_FALSE(ParseNumbers(text, &numbers)) << text;
    }
}

// Fails at operation 300 when 17 and 250 came before it.
std::optional<Failure> NeedsTwoBefore(const Script& script) {
    const auto has = [&](std::size_t number) {
        return std::any_of(script.begin(), script.end(),
                           [&](const Operation& each) { return each.number == number; });
    };
    for (std::size_t at = 0; at < script.size(); ++at) {
        if (script[at].number == 300 && has(17) && has(250)) {
            return Failure{at, "Thing: result", "got 1, expected 0"};
        }
    }
    return std::nullopt;
}

TEST(RunAndReport, TellsTheSeedTheShortScriptAndTheCommand) {
    const SeedRequest request{.seed = 7, .operations = 500, .only = {}, .async = true};
    const Script script = ScriptOf(request);
    std::string lines;
    for (const std::size_t at : {0U, 17U, 250U, 300U}) {
        lines += "    " + Describe(script[at]) + "\n";
    }
    EXPECT_EQ(RunAndReport(request, &NeedsTwoBefore),
              "seed 7, operation 300: Thing: result: got 1, expected 0\n"
              "shortened to 4 operations: Thing: result: got 1, expected 0\n" +
                  lines +
                  "replay: model_run --seed 7 --operations 500 --async yes --only 0,17,250,300\n");
}

TEST(Shrink, DoesNotTakeAnotherFailureForTheSame) {
    const RunScript run = [](const Script& script) -> std::optional<Failure> {
        return Failure{script.size() - 1, script.size() >= 8 ? "long" : "short", ""};
    };
    const Script script = MakeScript(1, 100);
    const Shrunk shrunk = Shrink(script, *run(script), run, 10000);
    EXPECT_EQ(shrunk.script.size(), 8U);
    EXPECT_EQ(shrunk.failure.what, "long");
}

TEST(Shrink, StopsAfterSoManyRuns) {
    u32 runs = 0;
    const RunScript run = [&](const Script& script) {
        ++runs;
        return NeedsTwoBefore(script);
    };
    const Script script = MakeScript(1, 500);
    const Shrunk shrunk = Shrink(script, *NeedsTwoBefore(script), run, 5);
    EXPECT_EQ(runs, 5U);
    EXPECT_TRUE(NeedsTwoBefore(shrunk.script).has_value());
}

// --- Threads

// Random work of several threads on a storage with the asynchronous writer: clients, readers from
// the disk, the index thread with its idle flushes, the writing thread. K9EREPL_TSAN_SECONDS says
// for how long, 2 seconds unless set.
TEST(AsyncThreads, KeepExactlyWhatWasCommitted) {
    KeepQuiet();
    const char* const given = std::getenv("K9EREPL_TSAN_SECONDS");  // NOLINT(concurrency-mt-unsafe)
    const std::chrono::seconds seconds(given != nullptr ? std::atoi(given) : 2);
    const auto end = std::chrono::steady_clock::now() + seconds;
    const test::TempFolder folder;
    const std::string path = folder.File("threads.edb");
    ASSERT_EQ(K9eReplStorageCreate(("file=" + path).c_str(), 0), RC_OK);
    Workout workout(path);
    u32 round = 0;
    for (; !HasFailure() && (round < 4 || std::chrono::steady_clock::now() < end); ++round) {
        workout.Round(round, 500, round);
        workout.Compare();
        EXPECT_EQ(workout.Problem(), "");
    }
    std::cout << round << " rounds, " << workout.Committed() << " committed, "
              << workout.RolledBack() << " rolled back, " << workout.Cleared() << " clears, "
              << workout.Written() << " writes, " << workout.Enumerated() << " enumerated\n";
    EXPECT_GT(workout.Committed(), 0U);
    EXPECT_GT(workout.RolledBack(), 0U);
    EXPECT_GT(workout.Written(), 0U);
    EXPECT_GT(workout.Enumerated(), 0U);
}

}  // namespace

}  // namespace k9erepl::model
