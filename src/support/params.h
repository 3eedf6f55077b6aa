// The connection string: items "key=value" separated by ";" or ",". Every reader of settings uses
// these functions; the string is searched anew for each key and never parsed into a table. The
// command-line tool compiles the source by itself. docs/configuration.md, "How the string is read",
// has the same rules for users.
//
// Keys are compared case-sensitively. Blanks (space, tab) around a key and in front of a value do
// not count. A value runs to the next separator, trailing blanks included. The first item with the
// key wins. There is no quoting: a value holds no separator. An empty value counts as absent.
//
// No text pointer may be null unless a comment says so. Lengths are in bytes.
#ifndef K9EREPL_SUPPORT_PARAMS_H
#define K9EREPL_SUPPORT_PARAMS_H

#include <string>

#include "platform/int_types.h"

namespace k9erepl {

// Returns the start of the value of `key` inside `connStr`, or null when the key is absent.
// *valueLen receives its length (0 when absent). `itemStart` may be null; otherwise it receives the
// start of the item. A key that stands without "=" is found with an empty value, unless the string
// ends behind it.
const char* FindParam(const char* connStr, const char* key, u32* valueLen,
                      const char** itemStart = nullptr);

// Makes `out` the value, or empty when the key is absent.
void GetParam(const char* connStr, const char* key, std::string& out);

// Reads the value as a number: optional blanks and sign, then digits. What follows is ignored, no
// digits give 0, and a number outside 32 bits becomes the nearest 32-bit limit. Returns false, with
// *out unchanged, when the value is absent or empty.
[[nodiscard]] bool GetParamInt(const char* connStr, const char* key, i32* out);
// The same for a value that is never negative: limits 0 and 2^32 - 1.
[[nodiscard]] bool GetParamUInt(const char* connStr, const char* key, u32* out);

// Convert a text in the way of GetParamInt and GetParamUInt.
i32 ToInt(const char* text);
u32 ToUInt(const char* text);

// Appends ";" (unless `s` is empty), the key, "=" and the value.
void AppendParam(std::string& s, const char* key, const char* value);

// Takes the item with `key` out of `s`, with the separator behind it; `removedValue` becomes its
// value. Both are unchanged, or `removedValue` empty, when the key is absent.
void RemoveParam(std::string& s, const char* key, std::string& removedValue);

// Returns the length of `text` without its trailing characters that are in `set`.
u32 TrimRight(const char* text, const char* set);
// Returns the start of `text` behind leading blanks. *len receives the length from there on,
// without trailing blanks.
const char* Trim(const char* text, u32* len);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_PARAMS_H
