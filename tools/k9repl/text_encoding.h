// Bytes as text: whether they are UTF-8 already, and base64 when they are not. For JSON output.
#ifndef K9EREPL_K9REPL_TEXT_ENCODING_H
#define K9EREPL_K9REPL_TEXT_ENCODING_H

#include <string>
#include <string_view>

namespace k9repl {

// Strictly: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(std::string_view bytes);

// With the alphabet of "+" and "/", padded with "=".
std::string ToBase64(std::string_view bytes);

}  // namespace k9repl

#endif  // K9EREPL_K9REPL_TEXT_ENCODING_H
