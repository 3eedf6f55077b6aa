// What the shared library offers to the world and what it takes from the host's system library.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <sstream>

#include "api/dynamic_symbols.h"

namespace k9erepl::test {
namespace {

Names Split(const std::string& words) {
    std::istringstream text(words);
    return {std::istream_iterator<std::string>(text), std::istream_iterator<std::string>()};
}

// With "K9eReplStorage" before each.
const Names kExports = Split(
    "Startup Cleanup Open Close DuplicateHandle Create Delete Load Truncate BeginTransaction "
    "Commit Rollback Insert InsertP EnumRecords SetLifenum GetLifenum GetNextRev ClearOldRev "
    "GetClearOldRev ClearAll SetOnFlushCallback GetLLStorage SetOnWriteToFileCallback");

// A host's system library need not offer anything else.
const Names kSystemLibrary = Split(
    "K9LogInfoEx K9LogWarningEx K9LogErrorEx K9LogErrorWithCodeEx trcheckEx_K9LogInfoEx_ "
    "trcheckEx_K9LogInfoEx_0 trcheckEx_K9LogWarningEx_ trcheckEx_K9LogErrorEx_ "
    "trcheckEx_K9LogErrorWithCodeEx_ K9SysSNPrintf K9SysParserMemAlloc K9SysParserMemFree "
    "K9MQStatSetBinaryModuleVersion K9MQStatUnregisterModule");

// What the library imports from the system library: by its name where the format says so, else what
// the stand-in has.
Names TakenFromTheSystemLibrary() {
    const DynamicSymbols symbols = ReadDynamicSymbols(STORAGE_LIBRARY);
    if (const auto found = symbols.importedFrom.find("K9SYS.DLL");
        found != symbols.importedFrom.end()) {
        return found->second;
    }
    const Names offered = ReadDynamicSymbols(SYSTEM_LIBRARY).defined;
    Names taken;
    std::set_intersection(symbols.imported.begin(), symbols.imported.end(), offered.begin(),
                          offered.end(), std::inserter(taken, taken.end()));
    return taken;
}

TEST(SharedLibrary, ExportsExactlyItsFunctions) {
    Names expected;
    for (const std::string& name : kExports) {
        expected.insert("K9eReplStorage" + name);
    }
    EXPECT_EQ(ReadDynamicSymbols(STORAGE_LIBRARY).defined, expected);
    EXPECT_EQ(expected.size(), 24U);
}

TEST(SharedLibrary, ImportsNothingButTheListedServicesFromTheSystemLibrary) {
    const Names taken = TakenFromTheSystemLibrary();
    EXPECT_TRUE(taken.contains("K9LogErrorWithCodeEx"));
    for (const std::string& name : taken) {
        EXPECT_TRUE(kSystemLibrary.contains(name)) << name;
    }
}

}  // namespace
}  // namespace k9erepl::test
