// Runs the groups of a family until there are cases enough, and counts.
#ifndef K9EREPL_TESTS_RELIABILITY_FAMILY_RUN_H
#define K9EREPL_TESTS_RELIABILITY_FAMILY_RUN_H

#include <map>
#include <optional>
#include <string>

#include "reliability/family.h"

namespace k9erepl::reliability {

struct FamilyRequest {
    u64 seed = 1;
    u64 cases = 0;  // of all shards; 0: as many as the time allows
    std::optional<u64> onlyGroup;
    std::optional<u64> onlyCase;  // of that group
    double minutesMax = 0;        // 0: no limit
    u64 shard = 0;                // this one of
    u64 shards = 1;
    std::string keepFolder;  // for the files of a failing case
};

struct FamilyResult {
    std::string name;
    std::string title;
    u64 seed = 0;
    u64 cases = 0;
    u64 failed = 0;
    u64 groups = 0;
    double seconds = 0;
    std::map<std::string, u64> counters;
};

// Failures are printed as they come, with the command that replays them. A crash or a hang of the
// process ends it, with that command.
FamilyResult RunFamily(const Family& family, const FamilyRequest& request);

std::string Summary(const FamilyResult& result);  // one line
std::string Json(const FamilyResult& result);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FAMILY_RUN_H
