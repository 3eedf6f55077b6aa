// The dynamic symbols of a shared library, read from its file. Used by export_list_test.cpp;
// posix/elf_symbols.cpp and windows/pe_symbols.cpp read what their system's linkers write.
#ifndef K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H
#define K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H

#include <map>
#include <set>
#include <string>

namespace k9erepl::test {

struct DynamicSymbols {
    std::set<std::string> defined;
    std::set<std::string> imported;
    // The same by the library that must have them, whose name is in capital letters; "#n" stands
    // for an import by number. Empty for ELF, where any library may have them.
    std::map<std::string, std::set<std::string>> importedFrom;
};

// Empty, and a failure of the running test, for a file that is no library of this machine.
DynamicSymbols ReadDynamicSymbols(const std::string& path);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_DYNAMIC_SYMBOLS_H
