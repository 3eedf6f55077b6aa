// The reports of bench/compare: the same results as a table for a terminal, as Markdown, as JSON
// and as a page for a browser.
#ifndef K9EREPL_BENCH_COMPARE_REPORT_H
#define K9EREPL_BENCH_COMPARE_REPORT_H

#include <string>
#include <vector>

#include "compare/runner.h"

namespace k9erepl::bench {

struct Report {
    int rounds = 0;
    bool quick = false;
    std::string without;  // the peers that the program was built without; empty if none
    std::vector<RowResult> rows;
};

std::string TextReport(const Report& report);
std::string MarkdownReport(const Report& report);
std::string JsonReport(const Report& report);
// One page that needs no other file.
std::string HtmlReport(const Report& report);

// Three digits that count, or all those before the point: 0.0123, 1.23, 12.3, 1234.
std::string Short(double value);

}  // namespace k9erepl::bench

#endif  // K9EREPL_BENCH_COMPARE_REPORT_H
