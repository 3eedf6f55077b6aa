// Whole files and their bytes, read and changed behind the library's back. Used by every test that
// looks at what a file holds or damages it. Failures fail the running test.
#ifndef K9EREPL_TESTS_SUPPORT_FILE_BYTES_H
#define K9EREPL_TESTS_SUPPORT_FILE_BYTES_H

#include <span>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::test {

std::vector<u8> ReadBytes(const std::string& path);
// Creates or replaces the file.
void WriteBytes(const std::string& path, std::span<const u8> bytes);
void WriteText(const std::string& path, const std::string& text);
std::string ReadText(const std::string& path);

// Overwrites bytes of an existing file, at and behind `offset`.
void PatchBytes(const std::string& path, i64 offset, std::span<const u8> bytes);
// Cuts an existing file, or extends it with zeros.
void ResizeFile(const std::string& path, i64 size);

// The place of the byte at `offset`; offsets are wider than some targets' iterators.
inline std::vector<u8>::const_iterator At(const std::vector<u8>& bytes, i64 offset) {
    return bytes.begin() + static_cast<std::ptrdiff_t>(offset);
}

bool Exists(const std::string& path);
i64 FileSize(const std::string& path);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_FILE_BYTES_H
