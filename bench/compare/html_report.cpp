// The page for a browser: for each row a table with a bar for each contender; see the header.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "compare/report.h"

namespace k9erepl::bench {

namespace {

constexpr double kBarWidth = 320;  // pixels of the longest bar

constexpr const char* kHead = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>Comparison with the limit and with peers</title>
<style>
body { font: 15px/1.4 sans-serif; margin: 2em auto; max-width: 60em; padding: 0 1em; }
table { border-collapse: collapse; }
td, th { padding: 2px 10px; text-align: right; } td:first-child { text-align: left; }
p { margin: 0.3em 0; } h2 { margin: 1.6em 0 0.2em; font-size: 1.1em; }
.limit { fill: #999; } .ours { fill: #2a6fb0; } .variant { fill: #8ab4d8; } .peer { fill: #d9a441; }
.range { stroke: #333; } .missed { color: #b00020; } .reached { color: #1b7a34; }
</style></head><body>
<h1>Comparison with the limit and with peers</h1>
)";

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

// A bar as long as the median, and a line from the 10th to the 90th percentile.
std::string Bar(const ContenderResult& contender, double longest) {
    const double scale = longest > 0 ? kBarWidth / longest : 0;
    return fmt::format(
        R"(<svg width="{:.0f}" height="16"><rect class="{}" y="2" width="{:.1f}" height="12"/>)"
        R"(<line class="range" x1="{:.1f}" x2="{:.1f}" y1="8" y2="8"/></svg>)",
        kBarWidth, NameOf(contender.role), contender.median * scale, contender.p10 * scale,
        contender.p90 * scale);
}

std::string Section(const RowResult& row) {
    double longest = 0;
    for (const ContenderResult& contender : row.contenders) {
        longest = std::max(longest, contender.p90);
    }
    std::string text = fmt::format("<h2>{}</h2>\n", Escaped(row.title));
    if (!row.limit.empty()) {
        text += fmt::format("<p>Limit: {}.</p>\n", Escaped(row.limit));
    }
    for (const MarkResult& mark : row.marks) {
        text += fmt::format("<p class=\"{0}\">Mark {1}: {2}, {0}.</p>\n",
                            mark.holds ? "reached" : "missed", Escaped(mark.mark), mark.reached);
    }
    text += fmt::format(
        "<table><tr><th></th><th>{}</th><th>p10</th><th>p90</th><th>× limit</th><th></th></tr>\n",
        Escaped(row.unit));
    for (const ContenderResult& contender : row.contenders) {
        text += fmt::format(
            "<tr><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
            Escaped(contender.name), contender.values.empty() ? "failed" : Short(contender.median),
            Short(contender.p10), Short(contender.p90),
            contender.ratio > 0 ? fmt::format("{:.2f}", contender.ratio) : "",
            Bar(contender, longest));
    }
    return text + "</table>\n";
}

}  // namespace

std::string HtmlReport(const Report& report) {
    std::string page = kHead;
    page += fmt::format(
        "<p>Medians of {} interleaved rounds{}. Less is better. The line in a bar reaches from the "
        "10th to the 90th percentile.</p>\n",
        report.rounds, report.quick ? " with a tenth of the work" : "");
    if (!report.without.empty()) {
        page += fmt::format("<p>Left out: {}.</p>\n", Escaped(report.without));
    }
    for (const RowResult& row : report.rows) {
        page += Section(row);
    }
    return page + "</body></html>\n";
}

}  // namespace k9erepl::bench
