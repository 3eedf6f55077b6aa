// A short sum of a storage's file that leaves out the stamps of the commit blocks, the only bytes
// in which two builds that do the same may differ. Used by the program portable_storage and by
// portability_tests.
#ifndef K9EREPL_TESTS_PORTABILITY_FILE_DIGEST_H
#define K9EREPL_TESTS_PORTABILITY_FILE_DIGEST_H

#include <span>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::portable {

// The bytes of a storage file with each stamp replaced by a number: 1 for the first that the file
// has, 2 for the second, and so on, so that a broken chain stays one. Files of other kinds stay as
// they are.
std::vector<u8> WithoutStamps(std::span<const u8> bytes);

// 16 hexadecimal digits over WithoutStamps, and the size: "0123456789abcdef 4711".
std::string Digest(std::span<const u8> bytes);

}  // namespace k9erepl::portable

#endif  // K9EREPL_TESTS_PORTABILITY_FILE_DIGEST_H
