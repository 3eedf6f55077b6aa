// Compares words of settings without regard to the case of ASCII letters. The few settings that
// take any case of letters use it: ":memory:" and async_mode. It does not depend on the locale, so
// a connection string means the same in every host.
#ifndef K9EREPL_SUPPORT_IGNORE_CASE_H
#define K9EREPL_SUPPORT_IGNORE_CASE_H

#include <algorithm>
#include <string_view>

namespace k9erepl {

// Returns the small letter for an ASCII capital letter, and every other character as it is.
constexpr char LowerCase(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Tells whether `text` is `lowerCaseWord` in any case of letters, from its beginning to its end.
// REQUIRES: `lowerCaseWord` has no capital letters.
constexpr bool EqualsIgnoringCase(std::string_view text, std::string_view lowerCaseWord) {
    return std::equal(text.begin(), text.end(), lowerCaseWord.begin(), lowerCaseWord.end(),
                      [](char a, char b) { return LowerCase(a) == b; });
}

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_IGNORE_CASE_H
