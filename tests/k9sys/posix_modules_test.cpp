// What stands for a module on POSIX: any address in it.
#include <gtest/gtest.h>
#include <k9sys/k9sys.h>

#include <string>

#include "k9sys/registration.h"

namespace k9erepl::test {

TEST(ModuleStatistics, AnAddressInALibraryIsTheLibrary) {
    const Registration registration(reinterpret_cast<void*>(&K9SysRegisteredModuleCount));
    EXPECT_EQ(std::string(registration.name).substr(0, 8), "libK9Sys");
}

}  // namespace k9erepl::test
