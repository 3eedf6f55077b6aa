// Failing steps of a squeeze: the calls of the system that it makes, and what is left when one of
// them fails. Used by squeeze_failures_test.cpp and posix/squeeze_links_test.cpp.
#ifndef K9EREPL_TESTS_SOLID_SQUEEZE_STEPS_H
#define K9EREPL_TESTS_SOLID_SQUEEZE_STEPS_H

#include <ostream>
#include <span>
#include <string>

#include "solid/squeeze_fixture.h"

namespace k9erepl::test {

// What the storage's name leads to after a failure.
enum class Left {
    kOld,     // the file as it was
    kRaised,  // with the clear revision's commit block
    kNew,
};

// The `nth` call of its kind in a squeeze with a backup. In `message`, {P} stands for the path, and
// {E} for the number of the system's error.
struct Step {
    const char* name;
    SystemCall call;
    u32 nth;
    const char* message;
    Left left;
    bool open;              // whether the storage is, afterwards
    bool withLinks = true;  // false: the file system has no second names for files
};

inline std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

// Those that do not depend on how the backup is made, in the order in which they happen.
std::span<const Step> StepsOfEverySqueeze();

class SqueezeFailure : public SqueezeTest {
  protected:
    std::string Filled(std::string text) const;
    static FileBytes BytesLeft(Left left);
    Texts Errors() const { return m_log.Texts(K9SYS_LOG_ERROR); }
    // Nothing but the storage file lies in the folder, and that is the old one.
    void ExpectOnlyTheOldFile(Left left);
    void LinkNothing() { Fail(SystemCall::kLink, 1, SystemErrorKind::kNotSupported); }
    // A squeeze makes the calls of `names`, which change names, and of the steps that every squeeze
    // has, and no other.
    void ExpectTried(std::span<const Step> names);

    const std::string m_ioError = SysErr(SystemErrorKind::kInputOutput);
};

class SqueezeStep : public SqueezeFailure, public ::testing::WithParamInterface<Step> {
  protected:
    u32 FailedSqueeze() {
        if (!GetParam().withLinks) {
            LinkNothing();
        }
        Fail(GetParam().call, GetParam().nth);
        return Squeeze();
    }
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SOLID_SQUEEZE_STEPS_H
