// The table for docs/performance.md; see the header. The peers' columns are ratios to the limit.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "compare/report.h"

namespace k9erepl::bench {

namespace {

std::vector<std::string> PeersOf(const Report& report) {
    std::vector<std::string> peers;
    for (const RowResult& row : report.rows) {
        for (const ContenderResult& contender : row.contenders) {
            if (contender.role == Role::kPeer &&
                std::find(peers.begin(), peers.end(), contender.name) == peers.end()) {
                peers.push_back(contender.name);
            }
        }
    }
    return peers;
}

std::string RatioOf(const ContenderResult& contender) {
    return contender.ratio > 0 ? fmt::format("{:.2f}", contender.ratio) : "";
}

std::string RatioOf(const RowResult& row, const std::string& peer) {
    for (const ContenderResult& contender : row.contenders) {
        if (contender.role == Role::kPeer && contender.name == peer) {
            return contender.values.empty() ? "failed" : RatioOf(contender);
        }
    }
    return "";
}

std::string MarksOf(const RowResult& row) {
    std::string text;
    for (const MarkResult& mark : row.marks) {
        text += fmt::format("{}{}{}", text.empty() ? "" : "; ", mark.mark,
                            mark.holds ? "" : fmt::format(" (missed: {})", mark.reached));
    }
    return text;
}

// The line of this library or, as "... with other settings", of a variant.
std::string LineOf(const RowResult& row, const ContenderResult& contender, double limit,
                   const std::vector<std::string>& peers) {
    const bool ours = contender.role == Role::kOurs;
    std::string line = fmt::format(
        "| {} | {} | {} | {} ({} to {}) | {} | {} |", ours ? row.title : "… " + contender.name,
        ours ? row.unit : "", ours && limit > 0 ? Short(limit) : "", Short(contender.median),
        Short(contender.p10), Short(contender.p90), RatioOf(contender), ours ? MarksOf(row) : "");
    for (const std::string& peer : peers) {
        line += fmt::format(" {} |", ours ? RatioOf(row, peer) : "");
    }
    return line;
}

std::string HeadOf(const std::vector<std::string>& peers) {
    std::string head = "| Work | Unit | Limit | This library (p10 to p90) | × limit | Mark |";
    std::string rule = "|---|---|---|---|---|---|";
    for (const std::string& peer : peers) {
        head += fmt::format(" {}, × limit |", peer);
        rule += "---|";
    }
    return head + "\n" + rule + "\n";
}

// The lines of the rows that have marks or of those that have none.
std::string LinesOf(const Report& report, bool withMarks, const std::vector<std::string>& peers) {
    std::string lines;
    for (const RowResult& row : report.rows) {
        double limit = 0;
        for (const ContenderResult& contender : row.contenders) {
            limit = contender.role == Role::kLimit ? contender.median : limit;
            if (row.marks.empty() != withMarks &&
                (contender.role == Role::kOurs || contender.role == Role::kVariant)) {
                lines += LineOf(row, contender, limit, peers) + "\n";
            }
        }
    }
    return lines;
}

}  // namespace

std::string MarkdownReport(const Report& report) {
    const std::vector<std::string> peers = PeersOf(report);
    std::string text;
    // Most rows that have no mark say how the cost grows: a table of their own.
    for (const bool withMarks : {true, false}) {
        const std::string rows = LinesOf(report, withMarks, peers);
        text += rows.empty() || text.empty() ? "" : "\n";
        text += rows.empty() ? "" : HeadOf(peers) + rows;
    }
    return text + fmt::format("\nMedians of {} rounds{}.\n", report.rounds,
                              report.quick ? " with a tenth of the work" : "");
}

}  // namespace k9erepl::bench
