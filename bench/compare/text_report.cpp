// The table on a terminal, and how numbers are written; see the header.
#include <fmt/format.h>

#include <cmath>
#include <iterator>

#include "compare/report.h"

namespace k9erepl::bench {

std::string Short(double value) {
    if (value <= 0) {
        return "0";
    }
    const int digitsBefore = static_cast<int>(std::floor(std::log10(value))) + 1;
    return fmt::format("{:.{}f}", value, std::max(0, 3 - digitsBefore));
}

std::string TextReport(const Report& report) {
    std::string text;
    auto out = std::back_inserter(text);
    for (const RowResult& row : report.rows) {
        fmt::format_to(out, "\n{} ({}; --rows {})\n", row.title, row.unit, row.id);
        if (!row.limit.empty()) {
            fmt::format_to(out, "  limit: {}\n", row.limit);
        }
        fmt::format_to(out, "  {:<26}{:>10}{:>10}{:>10}{:>10}\n", "", "p10", "median", "p90",
                       "x limit");
        for (const ContenderResult& contender : row.contenders) {
            if (contender.values.empty()) {
                fmt::format_to(out, "  {:<26}{:>10}\n", contender.name, "failed");
                continue;
            }
            fmt::format_to(out, "  {:<26}{:>10}{:>10}{:>10}{:>10}\n", contender.name,
                           Short(contender.p10), Short(contender.median), Short(contender.p90),
                           contender.ratio > 0 ? fmt::format("{:.2f}", contender.ratio) : "");
        }
        for (const MarkResult& mark : row.marks) {
            fmt::format_to(out, "  mark {}: {} {}\n", mark.mark, mark.reached,
                           mark.holds ? "reached" : "MISSED");
        }
    }
    fmt::format_to(out, "\n{} rounds{}; less is better; ratios are those of the medians\n",
                   report.rounds, report.quick ? ", a tenth of the work" : "");
    if (!report.without.empty()) {
        fmt::format_to(out, "left out, because their packages were not found at the build: {}\n",
                       report.without);
    }
    return text;
}

}  // namespace k9erepl::bench
