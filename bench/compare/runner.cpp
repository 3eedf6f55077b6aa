// Interleaved rounds and their results; see the header.
#include "compare/runner.h"

#include <fmt/format.h>

#include <cstdio>

#include "compare/posix/process.h"
#include "compare/work.h"

namespace k9erepl::bench {

namespace {

const ContenderResult* Find(const RowResult& result, Role role, const std::string& name) {
    for (const ContenderResult& contender : result.contenders) {
        if (contender.role == role && (name.empty() || contender.name == name) &&
            !contender.values.empty()) {
            return &contender;
        }
    }
    return nullptr;
}

void Measure(const Row& row, int rounds, RowResult* result) {
    std::vector<bool> failed(row.contenders.size(), false);
    for (int round = 0; round < rounds; ++round) {
        (void)std::fprintf(stderr, "%s: round %d of %d\n", row.id.c_str(), round + 1, rounds);
        for (std::size_t turn = 0; turn < row.contenders.size(); ++turn) {
            // Another contender begins each round, so none always follows the same one.
            const std::size_t at = (turn + static_cast<std::size_t>(round)) % row.contenders.size();
            if (failed[at]) {
                continue;
            }
            if (const auto value = RunInChild(row.contenders[at].measure)) {
                result->contenders[at].values.push_back(*value);
            } else {
                failed[at] = true;
                result->contenders[at].values.clear();
            }
        }
    }
}

void Summarise(RowResult* result) {
    for (ContenderResult& contender : result->contenders) {
        contender.p10 = Percentile(contender.values, 0.1);
        contender.median = Percentile(contender.values, 0.5);
        contender.p90 = Percentile(contender.values, 0.9);
    }
    if (const ContenderResult* limit = Find(*result, Role::kLimit, "")) {
        const double unit = limit->median;
        for (ContenderResult& contender : result->contenders) {
            contender.ratio = unit > 0 ? contender.median / unit : 0;
        }
    }
}

MarkResult Judge(const Mark& mark, const RowResult& result) {
    const ContenderResult* const ours = Find(result, Role::kOurs, "");
    const ContenderResult* const peer = Find(result, Role::kPeer, mark.peer);
    if (ours == nullptr) {
        return {"", "not measured", false};
    }
    switch (mark.kind) {
        case Mark::Kind::kTimesLimit:
            return {fmt::format("≤ {:g} × limit", mark.value), fmt::format("{:.2f}", ours->ratio),
                    ours->ratio > 0 && ours->ratio <= mark.value};
        case Mark::Kind::kAtMost:
            return {fmt::format("≤ {:g} {}", mark.value, result.unit),
                    fmt::format("{:.2f}", ours->median), ours->median <= mark.value};
        case Mark::Kind::kFasterThan:
            break;
    }
    const std::string text = fmt::format("≥ {:g} × the rate of {}", mark.value, mark.peer);
    if (peer == nullptr || ours->median <= 0) {
        return {text, "not measured", false};
    }
    const double faster = peer->median / ours->median;
    return {text, fmt::format("{:.2f}", faster), faster >= mark.value};
}

}  // namespace

RowResult RunRow(Row row, int rounds) {
    if (row.prepare) {
        row.prepare();
    }
    RowResult result{row.id, row.title, row.unit, row.limit, {}, {}};
    for (const Contender& contender : row.contenders) {
        ContenderResult& added = result.contenders.emplace_back();
        added.name = contender.name;
        added.role = contender.role;
    }
    Measure(row, rounds, &result);
    Summarise(&result);
    for (const Mark& mark : row.marks) {
        result.marks.push_back(Judge(mark, result));
    }
    return result;
}

}  // namespace k9erepl::bench
