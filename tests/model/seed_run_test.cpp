// Scripts follow from their seeds, and a report's command leads back to its script.
#include <gtest/gtest.h>

#include <set>

#include "model/generator.h"
#include "model/seed_run.h"

namespace k9erepl::model {

namespace {

using Numbers = std::vector<std::size_t>;

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

TEST(MakeScript, OpensEverySettingInTurn) {
    std::set<std::string> opened;
    for (u64 seed = 0; seed < CombinationCount(); ++seed) {
        const Settings settings = MakeScript(seed, 1).front().reopen.settings;
        opened.insert(std::to_string(static_cast<int>(settings.kind)) + "/" +
                      std::to_string(settings.cacheBlocks) + "/" +
                      std::to_string(settings.blockSize) + "/" +
                      std::to_string(static_cast<int>(settings.flushBy)));
    }
    // Four caches, five block sizes and two ways to flush; five block sizes twice without a file.
    EXPECT_EQ(opened.size(), 4U * 5 * 2 + 5 * 2);
}

TEST(MakeScript, OpensEverySettingWithBothWriters) {
    for (u64 seed = 0; seed < CombinationCount(); ++seed) {
        EXPECT_NE(RunsAsync(seed), RunsAsync(seed + CombinationCount())) << seed;
    }
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
    const Script some = ScriptOf({.seed = 7, .operations = 50, .only = {0, 3, 48}, .async = {}});
    EXPECT_EQ(Lines(some), Lines({all[0], all[3], all[48]}));
}

TEST(Numbers, AreReadAsTheyAreWritten) {
    const Script script =
        ScriptOf({.seed = 7, .operations = 50, .only = {0, 3, 4, 5, 9, 11, 12}, .async = {}});
    EXPECT_EQ(FormatNumbers(script), "0,3-5,9,11-12");
    Numbers numbers;
    EXPECT_TRUE(ParseNumbers("0,3-5,9,11-12", &numbers));
    EXPECT_EQ(numbers, (Numbers{0, 3, 4, 5, 9, 11, 12}));
}

TEST(Numbers, MustRise) {
    for (const char* text : {"", "3,2", "5-4", "1,", "a", "1;2", "1-2-3", "-1"}) {
        Numbers numbers;
        EXPECT_FALSE(ParseNumbers(text, &numbers)) << text;
    }
}

// The report of a failure that every run has from operation 5 on.
TEST(RunAndReport, TellsTheSeedTheShortScriptAndTheCommand) {
    const RunScript run = [](const Script& script) -> std::optional<Failure> {
        for (std::size_t at = 0; at < script.size(); ++at) {
            if (script[at].number == 5) {
                return Failure{at, "Thing: result", "got 1, expected 0"};
            }
        }
        return std::nullopt;
    };
    const Script script = ScriptOf({.seed = 7, .operations = 50, .only = {}, .async = true});
    EXPECT_EQ(RunAndReport({.seed = 7, .operations = 50, .only = {}, .async = true}, run),
              "seed 7, operation 5: Thing: result: got 1, expected 0\n"
              "shortened to 2 operations: Thing: result: got 1, expected 0\n"
              "    " +
                  Describe(script[0]) + "\n    " + Describe(script[5]) + "\n" +
                  "replay: model_run --seed 7 --operations 50 --async yes --only 0,5\n");
}

}  // namespace

}  // namespace k9erepl::model
