// Runs rows of bench/compare and holds what came out. The contenders of a row take turns, each
// measurement in a process of its own, so that all of them meet the same machine.
#ifndef K9EREPL_BENCH_COMPARE_RUNNER_H
#define K9EREPL_BENCH_COMPARE_RUNNER_H

#include <string>
#include <vector>

#include "compare/row.h"

namespace k9erepl::bench {

struct ContenderResult {
    std::string name;
    Role role = Role::kOurs;
    std::vector<double> values;  // one a round, in the row's unit; empty if the contender failed
    double p10 = 0;
    double median = 0;
    double p90 = 0;
    double ratio = 0;  // of the median to that of the limit; 0 if the row has none
};

struct MarkResult {
    std::string mark;     // such as "<= 1.5 x limit"
    std::string reached;  // in the same terms
    bool holds = false;
};

struct RowResult {
    std::string id;
    std::string title;
    std::string unit;
    std::string limit;  // what the limit does; empty if the row has none
    std::vector<ContenderResult> contenders;
    std::vector<MarkResult> marks;
};

// Runs one row, with a line of progress on standard error, and gives its shared files back.
RowResult RunRow(Row row, int rounds);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_RUNNER_H
