// Which DLLs the library cannot be loaded without. Nobody has to ship one beside it but the host's
// system library.
#include <gtest/gtest.h>

#include "api/dynamic_symbols.h"

namespace k9erepl::test {
namespace {

// Parts of Windows. The C library is one of the two, as the compiler has it.
const Names kSystem{"KERNEL32.DLL", "USER32.DLL", "MSVCRT.DLL", "UCRTBASE.DLL"};

bool IsPartOfTheSystem(const std::string& library) {
    return kSystem.contains(library) || library.starts_with("API-MS-WIN-CRT-");
}

TEST(ImportTable, NamesTheSystemAndTheHostsSystemLibraryOnly) {
    Names others;
    for (const auto& [library, names] : ReadDynamicSymbols(STORAGE_LIBRARY).importedFrom) {
        if (!IsPartOfTheSystem(library)) {
            others.insert(library);
        }
    }
    EXPECT_EQ(others, Names{"K9SYS.DLL"});
}

TEST(ImportTable, OfTheStandInForTheHostsSystemLibraryNamesTheSystemOnly) {
    for (const auto& [library, names] : ReadDynamicSymbols(SYSTEM_LIBRARY).importedFrom) {
        EXPECT_TRUE(IsPartOfTheSystem(library)) << library;
    }
}

TEST(ImportTable, TakesTheMessageBoxFromTheSystem) {
    const DynamicSymbols symbols = ReadDynamicSymbols(STORAGE_LIBRARY);
    EXPECT_EQ(symbols.importedFrom.at("USER32.DLL"), Names{"MessageBoxA"});
}

}  // namespace
}  // namespace k9erepl::test
