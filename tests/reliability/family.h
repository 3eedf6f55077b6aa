// Families: kinds of trouble, each with many cases. A family is a source file that ends with
//
//     const RegisteredFamily kFamily({.name = "crash-prefixes", .title = "...", .cases = 100000,
//                               .runGroup = &RunGroup});
//
// and stands in CMakeLists.txt. Cases come in groups, because what leads to a case is often worth
// many: one recorded run of a storage gives hundreds of crash images.
#ifndef K9EREPL_TESTS_RELIABILITY_FAMILY_H
#define K9EREPL_TESTS_RELIABILITY_FAMILY_H

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/int_types.h"
#include "reliability/disk_image.h"

namespace k9erepl::reliability {

// What a check may throw instead of returning what is wrong.
struct BrokenPromise : std::runtime_error {
    using std::runtime_error::runtime_error;
};
inline void Require(bool holds, const std::string& problem) {
    if (!holds) {
        throw BrokenPromise(problem);
    }
}

// One group, as the family's function sees it. Everything that is random must follow from Seed()
// and the numbers of the cases.
class GroupRun {
  public:
    virtual ~GroupRun() = default;
    // The groups of a family have different ones.
    virtual u64 Seed() const = 0;
    virtual u64 Number() const = 0;

    // Whether to run this case of the group; numbers rise.
    virtual bool Wants(u64 number) const = 0;
    // Runs it, if it is wanted. `check` returns what is wrong, nothing if nothing is.
    virtual void Case(u64 number, const std::function<std::string()>& check) = 0;
    // Whether the family has cases enough; a group may end then.
    virtual bool Enough() const = 0;
    // A number for the summary, such as "undetectable".
    virtual void Count(const std::string& what, u64 by = 1) = 0;
    // What a failing case began with, and the first of these changes, which led to it: kept as
    // files if the command line says so.
    virtual void Keep(const DiskImage& image, const Changes& changes, std::size_t done) = 0;
};

struct Family {
    std::string name;
    std::string title;
    u64 cases = 0;  // of an ordinary test run
    void (*runGroup)(GroupRun& run) = nullptr;
};

class RegisteredFamily {
  public:
    explicit RegisteredFamily(const Family& family);
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_FAMILY_H
