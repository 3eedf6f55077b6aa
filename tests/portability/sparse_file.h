// Files with holes, for storages larger than memory and disk would bear. One of the folders posix
// and windows beside this file holds the other half. Used by the tests of large files.
#ifndef K9EREPL_TESTS_PORTABILITY_SPARSE_FILE_H
#define K9EREPL_TESTS_PORTABILITY_SPARSE_FILE_H

#include <string>

namespace k9erepl::test {

// Lets what is never written in the existing file take no room. False where the file system cannot.
bool LetHaveHoles(const std::string& path);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_PORTABILITY_SPARSE_FILE_H
