// A family whose groups run each of a few kinds of trouble once. Used by the families of this
// folder.
#ifndef K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
#define K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H

#include <string>
#include <type_traits>

#include "reliability/family.h"
#include "reliability/oracle.h"

namespace k9erepl::reliability {

// One kind: what is told when it fails, and its function over a scene, which is made of a seed. It
// throws what is wrong.
template <typename TheScene>
struct Kind {
    using Scene = TheScene;
    const char* name;
    void (*run)(Scene& scene);
};

// Each kind is a case of the group, in a scene of its own.
template <const auto& kKinds>
void RunKinds(GroupRun& run) {
    for (std::size_t number = 0; number < kKinds.size(); ++number) {
        const auto& kind = kKinds.at(number);
        run.Case(number, [&]() -> Problem {
            run.Count(kind.name);
            try {
                typename std::decay_t<decltype(kind)>::Scene scene(Mix(run.Seed(), number));
                kind.run(scene);
                if constexpr (requires { scene.Count(run); }) {
                    scene.Count(run);
                }
            } catch (const std::exception& error) {
                return std::string(kind.name) + ": " + error.what();
            }
            return "";
        });
    }
}

inline void ExpectCode(const char* what, u32 got, u32 expected) {
    Require(got == expected, std::string(what) + " answers " + std::to_string(got) + ", not " +
                                 std::to_string(expected));
}

// "" when a call answers what it should.
inline Problem Expect(const char* what, u32 got, u32 expected) {
    return got == expected ? ""
                           : std::string(what) + " answers " + std::to_string(got) + ", not " +
                                 std::to_string(expected) + "; ";
}

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_POSIX_KINDS_H
