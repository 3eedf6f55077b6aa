// All numbers for other programs; see the header.
#include <nlohmann/json.hpp>

#include "compare/report.h"

namespace k9erepl::bench {

std::string JsonReport(const Report& report) {
    nlohmann::ordered_json rows = nlohmann::ordered_json::array();
    for (const RowResult& row : report.rows) {
        nlohmann::ordered_json contenders = nlohmann::ordered_json::array();
        for (const ContenderResult& contender : row.contenders) {
            contenders.push_back({{"name", contender.name},
                                  {"role", NameOf(contender.role)},
                                  {"p10", contender.p10},
                                  {"median", contender.median},
                                  {"p90", contender.p90},
                                  {"ratio", contender.ratio},
                                  {"values", contender.values}});
        }
        nlohmann::ordered_json marks = nlohmann::ordered_json::array();
        for (const MarkResult& mark : row.marks) {
            marks.push_back(
                {{"mark", mark.mark}, {"reached", mark.reached}, {"holds", mark.holds}});
        }
        rows.push_back({{"id", row.id},
                        {"title", row.title},
                        {"unit", row.unit},
                        {"limit", row.limit},
                        {"contenders", contenders},
                        {"marks", marks}});
    }
    const nlohmann::ordered_json all = {{"rounds", report.rounds},
                                        {"quick", report.quick},
                                        {"without", report.without},
                                        {"rows", rows}};
    return all.dump(2) + "\n";
}

}  // namespace k9erepl::bench
