// What stands for a module on Windows: its handle.
#include <gtest/gtest.h>

#include "k9sys/stand_in_fixture.h"
#include "platform/windows/win32.h"

namespace k9erepl::test {

TEST(ModuleStatistics, TheHandleOfALibraryIsTheLibrary) {
    const Registration registration(GetModuleHandleA("K9Sys.dll"));
    EXPECT_STREQ(registration.name, "K9Sys.dll");
}

}  // namespace k9erepl::test
