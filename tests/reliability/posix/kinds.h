// A family whose groups run each of a few kinds of trouble once. Used by the families of this
// folder.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H

#include <string>
#include <type_traits>

#include "reliability/family.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// One kind: what is told when it fails, and its function over a scene, which is made of a seed and
// has the last word in Judge(run, problem).
template <typename TheScene>
struct Kind {
    using Scene = TheScene;
    const char* name;
    Problem (*run)(Scene& scene);
};

// Each kind is a case of the group, in a scene of its own.
template <const auto& kKinds>
void RunKinds(GroupRun& run) {
    for (u64 number = 0; number < kKinds.size(); ++number) {
        const auto& kind = kKinds.at(number);
        run.Case(number, [&]() -> Problem {
            typename std::decay_t<decltype(kind)>::Scene scene(Mix(run.Seed(), number));
            run.Count(kind.name);
            const Problem problem = scene.Judge(run, kind.run(scene));
            return problem.empty() ? "" : std::string(kind.name) + ": " + problem;
        });
    }
}

// "" when a call answers what it should.
inline Problem Expect(const char* what, u32 got, u32 expected) {
    return got == expected ? ""
                           : std::string(what) + " answers " + std::to_string(got) + ", not " +
                                 std::to_string(expected) + "; ";
}

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
