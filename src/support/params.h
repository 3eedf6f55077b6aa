// The connection string: items "key=value" separated by ";" or ",". Every reader of settings uses
// these functions; the string is searched anew for each key and never parsed into a table.
//
// Keys are compared case-sensitively, blanks (space, tab) around a key and in front of a value do
// not count, a value runs to the next separator, trailing blanks included. The first item with the
// key wins. There is no quoting: a value holds no separator. An empty value counts as absent.
#ifndef K9EREPL_SUPPORT_PARAMS_H
#define K9EREPL_SUPPORT_PARAMS_H

#include <string>

#include "platform/int_types.h"

namespace k9erepl {

// The start of the value of `key` inside `connStr`, or null when the key is absent. *valueLen
// receives its length (0 when absent). `itemStart`, which may be null, receives the start of the
// item. A key that stands without "=" is found with an empty value.
const char* FindParam(const char* connStr, const char* key, u32* valueLen,
                      const char** itemStart = nullptr);

// `out` becomes the value, or empty when the key is absent.
void GetParam(const char* connStr, const char* key, std::string& out);

// The value as a number: optional blanks and sign, then digits; what follows is ignored, no digits
// give 0, and a number outside 32 bits takes the nearest 32-bit limit. False, with *out unchanged,
// when the value is absent or empty.
bool GetParamInt(const char* connStr, const char* key, i32* out);
// The same for a value that is never negative: limits 0 and 2^32 - 1.
bool GetParamUInt(const char* connStr, const char* key, u32* out);

// The conversions of GetParamInt and GetParamUInt for a text.
i32 ToInt(const char* text);
u32 ToUInt(const char* text);

// Appends ";" (unless `s` is empty), the key, "=" and the value.
void AppendParam(std::string& s, const char* key, const char* value);

// Takes the item with `key` out of `s`, with the separator behind it; `removedValue` becomes its
// value. Both are unchanged, or `removedValue` empty, when the key is absent.
void RemoveParam(std::string& s, const char* key, std::string& removedValue);

// The length of `text` without trailing characters of `set`.
u32 TrimRight(const char* text, const char* set);
// The start of `text` behind leading blanks; *len receives its length without trailing blanks.
const char* Trim(const char* text, u32* len);

}  // namespace k9erepl

#endif  // K9EREPL_SUPPORT_PARAMS_H
