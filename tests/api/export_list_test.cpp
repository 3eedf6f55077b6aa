// What the shared library offers to the world and what it takes from the host's system library.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>

#include "api/dynamic_symbols.h"

namespace k9erepl::test {
namespace {

using Names = std::set<std::string>;

const Names kExports{
    "K9eReplStorageStartup",
    "K9eReplStorageCleanup",
    "K9eReplStorageOpen",
    "K9eReplStorageClose",
    "K9eReplStorageDuplicateHandle",
    "K9eReplStorageCreate",
    "K9eReplStorageDelete",
    "K9eReplStorageLoad",
    "K9eReplStorageTruncate",
    "K9eReplStorageBeginTransaction",
    "K9eReplStorageCommit",
    "K9eReplStorageRollback",
    "K9eReplStorageInsert",
    "K9eReplStorageInsertP",
    "K9eReplStorageEnumRecords",
    "K9eReplStorageSetLifenum",
    "K9eReplStorageGetLifenum",
    "K9eReplStorageGetNextRev",
    "K9eReplStorageClearOldRev",
    "K9eReplStorageGetClearOldRev",
    "K9eReplStorageClearAll",
    "K9eReplStorageSetOnFlushCallback",
    "K9eReplStorageGetLLStorage",
    "K9eReplStorageSetOnWriteToFileCallback",
};

// A host's system library need not offer anything else.
const Names kSystemLibrary{
    "K9LogInfoEx",
    "K9LogWarningEx",
    "K9LogErrorEx",
    "K9LogErrorWithCodeEx",
    "trcheckEx_K9LogInfoEx_",
    "trcheckEx_K9LogInfoEx_0",
    "trcheckEx_K9LogWarningEx_",
    "trcheckEx_K9LogErrorEx_",
    "trcheckEx_K9LogErrorWithCodeEx_",
    "K9SysSNPrintf",
    "K9SysParserMemAlloc",
    "K9SysParserMemFree",
    "K9MQStatSetBinaryModuleVersion",
    "K9MQStatUnregisterModule",
};

Names Minus(const Names& all, const Names& without) {
    Names rest;
    std::set_difference(all.begin(), all.end(), without.begin(), without.end(),
                        std::inserter(rest, rest.end()));
    return rest;
}

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

}  // namespace

TEST(SharedLibrary, ExportsExactlyItsFunctions) {
    const Names defined = ReadDynamicSymbols(STORAGE_LIBRARY).defined;
    EXPECT_EQ(kExports.size(), 24U);
    EXPECT_EQ(Minus(defined, kExports), Names());
    EXPECT_EQ(Minus(kExports, defined), Names());
}

TEST(SharedLibrary, ImportsNothingButTheListedServicesFromTheSystemLibrary) {
    const Names taken = TakenFromTheSystemLibrary();
    EXPECT_EQ(taken.count("K9LogErrorWithCodeEx"), 1U);
    EXPECT_EQ(Minus(taken, kSystemLibrary), Names());
}

}  // namespace k9erepl::test
