// The dynamic symbols of a shared library, read from its file. Used by export_list_test.cpp.
#ifndef K9EREPL_TESTS_API_ELF_SYMBOLS_H
#define K9EREPL_TESTS_API_ELF_SYMBOLS_H

#include <set>
#include <string>

namespace k9erepl::test {

struct DynamicSymbols {
    std::set<std::string> defined;
    std::set<std::string> imported;
};

// Empty, and a failure of the running test, for a file that is no ELF library of this machine.
DynamicSymbols ReadDynamicSymbols(const std::string& path);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_API_ELF_SYMBOLS_H
