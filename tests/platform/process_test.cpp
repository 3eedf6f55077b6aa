// What a process has of the system: atoms, module handles, memory and error codes.
#include "platform/process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "platform/memory.h"
#include "platform/system_error.h"
#include "support/fault_injection.h"

namespace k9erepl::test {
namespace {

using platform::AddProcessAtom;
using platform::DeleteProcessAtom;
using platform::FindProcessAtom;
using platform::ProcessAtom;

TEST(ProcessAtoms, AreFoundByTheirWholeNameUntilTheyAreDeleted) {
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
    const ProcessAtom atom = AddProcessAtom("k9atom");
    ASSERT_NE(atom, 0U);
    DeleteProcessAtom(0, "k9atom");  // no atom: does nothing
    EXPECT_EQ(FindProcessAtom("k9atom"), atom);
    for (const char* other : {"k9", "atom", "k9atoms"}) {
        EXPECT_EQ(FindProcessAtom(other), 0U) << other;
    }
    DeleteProcessAtom(atom, "k9atom");
    EXPECT_EQ(FindProcessAtom("k9atom"), 0U);
}

TEST(ProcessAtoms, OfDifferentNamesAreDifferent) {
    const ProcessAtom first = AddProcessAtom("k9atom-1");
    const ProcessAtom second = AddProcessAtom("k9atom-2");
    EXPECT_EQ(FindProcessAtom("k9atom-1"), first);
    EXPECT_NE(first, second);
    DeleteProcessAtom(first, "k9atom-1");
    EXPECT_EQ(FindProcessAtom("k9atom-2"), second);
    DeleteProcessAtom(second, "k9atom-2");
}

// The library's objects are part of this program.
TEST(ModuleHandles, OfThisCodeAndOfTheProgramAreOne) {
    EXPECT_NE(platform::ProcessModuleHandle(), nullptr);
    EXPECT_EQ(platform::OwnModuleHandle(), platform::ProcessModuleHandle());
}

TEST(Memory, IsAlignedForWhatItHoldsThoughThatIsNothing) {
    for (const std::size_t size : {std::size_t{100}, std::size_t{0}}) {
        void* memory = platform::AllocMemory(size);
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % platform::kHeapAlignment, 0U);
        std::memset(memory, 1, size);
        platform::FreeMemory(memory);
    }
    platform::FreeMemory(nullptr);
}

int g_freed = 0;

TEST(Memory, OfABufferIsNullWhenExhaustedAndGoesBackWithItsOwner) {
    g_freed = 0;
    const ScopedSystemCalls systemCalls;
    platform::TheSystemCalls().freeMemory = [](void* memory) {
        ++g_freed;
        platform::NativeSystemCalls().freeMemory(memory);
    };
    FailAlloc(1);
    EXPECT_EQ(platform::AllocBuffer(10), nullptr);
    EXPECT_NE(platform::AllocBuffer(10), nullptr);
    EXPECT_EQ(g_freed, 1);
}

TEST(SystemErrors, EachKindHasACodeOfItsOwnAndTheLastOneIsKept) {
    using enum SystemErrorKind;
    std::set<platform::SystemError> codes;
    for (const SystemErrorKind kind :
         {kNoSpace, kInputOutput, kAccessDenied, kInterrupted, kFileTooBig, kOutOfMemory,
          kCrossVolume, kNotFound, kAlreadyExists, kNotARegularFile, kNotSupported, kLocked,
          kInvalidHandle}) {
        const platform::SystemError code = platform::SystemErrorOf(kind);
        EXPECT_NE(code, 0U);
        EXPECT_TRUE(codes.insert(code).second) << code;
        platform::SetLastSystemError(code);
        EXPECT_TRUE(platform::LastSystemErrorIs(kind));
        EXPECT_EQ(platform::LastSystemErrorIs(kNoSpace), kind == kNoSpace);
    }
}

}  // namespace
}  // namespace k9erepl::test
