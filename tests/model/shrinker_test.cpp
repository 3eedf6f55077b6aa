// The shrinker keeps what a failure needs and nothing else.
#include <gtest/gtest.h>

#include <algorithm>

#include "model/generator.h"
#include "model/shrinker.h"

namespace k9erepl::model {

namespace {

bool Has(const Script& script, std::size_t number) {
    return std::any_of(script.begin(), script.end(),
                       [&](const Operation& operation) { return operation.number == number; });
}

std::vector<std::size_t> NumbersOf(const Script& script) {
    std::vector<std::size_t> numbers;
    for (const Operation& operation : script) {
        numbers.push_back(operation.number);
    }
    return numbers;
}

// Fails at operation 300 when 17 and 250 came before it.
std::optional<Failure> NeedsTwoBefore(const Script& script) {
    for (std::size_t at = 0; at < script.size(); ++at) {
        if (script[at].number == 300 && Has(script, 17) && Has(script, 250)) {
            return Failure{at, "needs two", ""};
        }
    }
    return std::nullopt;
}

TEST(Shrink, KeepsTheFirstStepAndWhatTheFailureNeeds) {
    const Script script = MakeScript(1, 500);
    const Shrunk shrunk = Shrink(script, *NeedsTwoBefore(script), &NeedsTwoBefore, 10000);
    EXPECT_EQ(NumbersOf(shrunk.script), (std::vector<std::size_t>{0, 17, 250, 300}));
    EXPECT_EQ(shrunk.failure.position, 3U);
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

}  // namespace

}  // namespace k9erepl::model
