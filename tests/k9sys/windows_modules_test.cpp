// What stands for a module on Windows: its handle.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <gtest/gtest.h>
#include <windows.h>

#include "k9sys/registration.h"

namespace k9erepl::test {

TEST(ModuleStatistics, TheHandleOfALibraryIsTheLibrary) {
    const Registration registration(GetModuleHandleA("K9Sys.dll"));
    EXPECT_STREQ(registration.name, "K9Sys.dll");
}

}  // namespace k9erepl::test
