// A family whose groups run each of a few kinds of trouble once. Used by the families of this
// folder.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H

#include <string>

#include "reliability/family.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// One kind: what is told when it fails, and its function over a place or a scene.
template <typename Scene>
struct Kind {
    const char* name;
    Problem (*run)(Scene& scene);
};

// Each kind is a case of the group; `check(kind, number)` makes its scene and runs it.
template <typename Kinds, typename Check>
void RunKinds(GroupRun& run, const Kinds& kinds, Check check) {
    for (u64 number = 0; number < kinds.size(); ++number) {
        const auto& kind = kinds.at(number);
        run.Case(number, [&]() -> Problem {
            const Problem problem = check(kind, number);
            return problem.empty() ? "" : std::string(kind.name) + ": " + problem;
        });
    }
}

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
