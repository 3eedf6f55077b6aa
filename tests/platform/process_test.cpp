// Process atoms, the message box and module handles.
#include "platform/process.h"

#include <gtest/gtest.h>

namespace k9erepl::test {
namespace {

using platform::AddProcessAtom;
using platform::DeleteProcessAtom;
using platform::FindProcessAtom;
using platform::ProcessAtom;

TEST(ProcessAtoms, AreFoundByTheirName) {
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
    const ProcessAtom atom = AddProcessAtom("k9atom");
    ASSERT_NE(atom, 0U);
    EXPECT_EQ(FindProcessAtom("k9atom"), atom);
    DeleteProcessAtom(atom, "k9atom");
}

TEST(ProcessAtoms, AreGoneWhenDeleted) {
    DeleteProcessAtom(AddProcessAtom("k9atom"), "k9atom");
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
}

TEST(ProcessAtoms, HaveNamesThatAreComparedWhole) {
    const ProcessAtom atom = AddProcessAtom("k9atom");
    EXPECT_EQ(FindProcessAtom("k9"), 0U);
    EXPECT_EQ(FindProcessAtom("atom"), 0U);
    EXPECT_EQ(FindProcessAtom("k9atoms"), 0U);
    DeleteProcessAtom(atom, "k9atom");
}

TEST(ProcessAtoms, OfDifferentNamesAreDifferent) {
    const ProcessAtom first = AddProcessAtom("k9atom-1");
    const ProcessAtom second = AddProcessAtom("k9atom-2");
    EXPECT_EQ(FindProcessAtom("k9atom-1"), first);
    EXPECT_EQ(FindProcessAtom("k9atom-2"), second);
    EXPECT_NE(first, second);
    DeleteProcessAtom(first, "k9atom-1");
    EXPECT_EQ(FindProcessAtom("k9atom-2"), second);
    DeleteProcessAtom(second, "k9atom-2");
}

TEST(ProcessAtoms, DeletingNoAtomDoesNothing) {
    const ProcessAtom atom = AddProcessAtom("k9atom");
    DeleteProcessAtom(0, "k9atom");
    EXPECT_EQ(FindProcessAtom("k9atom"), atom);
    DeleteProcessAtom(atom, "k9atom");
}

// The library's objects are part of this program.
TEST(ModuleHandles, OfThisCodeAndOfTheProgramAreOne) {
    EXPECT_NE(platform::ProcessModuleHandle(), nullptr);
    EXPECT_EQ(platform::OwnModuleHandle(), platform::ProcessModuleHandle());
}

}  // namespace
}  // namespace k9erepl::test
