// Comparing words of settings without regard to the case of ASCII letters.
#ifndef K9EREPL_SUPPORT_IGNORE_CASE_H
#define K9EREPL_SUPPORT_IGNORE_CASE_H

#include <algorithm>
#include <string_view>

namespace k9erepl {

constexpr char LowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// REQUIRES: `lowerCaseWord` has no capital letters.
constexpr bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCaseWord) {
    return std::equal(text.begin(), text.end(), lowerCaseWord.begin(), lowerCaseWord.end(),
                      [](char a, char b) { return LowerCase(a) == b; });
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_IGNORE_CASE_H
