// A host's own library in the place of the stand-in: a program that was linked against the stand-in
// runs with own_host.c instead.
#include <algorithm>

#include "k9sys/child_fixture.h"

namespace k9erepl::test {

namespace {

class OwnHost : public ChildTest {
  protected:
    OwnHost() { m_environment = {"LD_BIND_NOW=1", "LD_LIBRARY_PATH=" K9SYS_OWN_HOST_FOLDER}; }
};

}  // namespace

TEST_F(OwnHost, TakesThePlaceOfTheStandIn) {
    ASSERT_TRUE(Run("levels", {"K9SYS_LOG=off"}));
    EXPECT_EQ(
        LinesOf(m_standardError),
        (Lines{"host error a: an error", "host warning a: a warning", "host info a: an info",
               "host error b: an error", "host warning b: a warning", "host info b: an info"}));
}

TEST_F(OwnHost, IsAskedAtEveryCallSite) {
    ASSERT_TRUE(Run("sites", {}));
    EXPECT_EQ(
        LinesOf(m_standardError),
        (Lines{"host info k9eRepl-storage: round %d", "host info k9eRepl-storage: round %d",
               "host error k9eRepl-storage: state %d", "host error k9eRepl-storage: state %d"}));
}

// LD_BIND_NOW: an import that the host's library lacks would end the program.
TEST_F(OwnHost, IsAllThatTheStorageLibraryNeeds) {
    ASSERT_TRUE(RunProgram({K9SYS_OWN_HOST_CLIENT}));
    const Lines lines = LinesOf(m_standardError);
    EXPECT_FALSE(lines.empty());
    for (const std::string& line : lines) {
        EXPECT_EQ(line.substr(0, 5), "host ") << line;
    }
}

TEST_F(OwnHost, UnregistersTheModuleWithWhateverIdItGave) {
    ASSERT_TRUE(RunProgram({K9SYS_OWN_HOST_CLIENT}));
    const Lines lines = LinesOf(m_standardError);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "host unregisters module 0"), 1);
}

}  // namespace k9erepl::test
