// Finds, reads and edits the items of a connection string; see the header for the rules.
#include "support/params.h"

#include <cassert>
#include <cstring>
#include <limits>
#include <string_view>

namespace k9erepl {

namespace {

constexpr const char* kSeparators = ";,";
constexpr const char* kBlanks = " \t";

const char* SkipBlanks(const char* text) {
    return text + std::strspn(text, kBlanks);
}

// The separator that ends the item or value at `text`, or the end of the string.
const char* FindSeparator(const char* text) {
    return text + std::strcspn(text, kSeparators);
}

bool IsSeparator(char c) {
    return c != '\0' && std::strchr(kSeparators, c) != nullptr;
}

// The value inside the item at `text` when the item's key is `key`, null otherwise.
const char* ValueInItem(const char* text, std::string_view key, u32* valueLen) {
    if (std::strncmp(text, key.data(), key.size()) != 0) {
        return nullptr;
    }
    text = SkipBlanks(text + key.size());
    if (*text == '=') {
        const char* const value = SkipBlanks(text + 1);
        *valueLen = static_cast<u32>(FindSeparator(value) - value);
        return value;
    }
    return IsSeparator(*text) ? text : nullptr;
}

// The number at the start of `text`, or the nearest limit when it is outside. The loop ends at the
// limit, long before a 64-bit number could overflow.
i64 ToNumber(const char* text, i64 lowest, i64 highest) {
    text += std::strspn(text, " \t\n\v\f\r");
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+') {
        ++text;
    }
    i64 value = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        const i64 digit = *text - '0';
        value = value * 10 + (negative ? -digit : digit);
        if (value < lowest || value > highest) {
            return negative ? lowest : highest;
        }
    }
    return value;
}

}  // namespace

const char* FindParam(const char* connStr, const char* key, u32* valueLen, const char** itemStart) {
    assert(connStr != nullptr && key != nullptr && valueLen != nullptr);
    *valueLen = 0;
    u32 keyLen = 0;
    key = Trim(key, &keyLen);
    if (keyLen == 0) {
        return nullptr;
    }
    for (const char* item = connStr;;) {
        if (itemStart != nullptr) {
            *itemStart = item;
        }
        const char* const value = ValueInItem(SkipBlanks(item), {key, keyLen}, valueLen);
        if (value != nullptr) {
            return value;
        }
        item = FindSeparator(item);
        if (*item == '\0') {
            return nullptr;
        }
        ++item;
    }
}

void GetParam(const char* connStr, const char* key, std::string& out) {
    u32 length = 0;
    const char* const value = FindParam(connStr, key, &length);
    out.assign(value == nullptr ? "" : value, length);
}

bool GetParamInt(const char* connStr, const char* key, i32* out) {
    assert(out != nullptr);
    u32 length = 0;
    const char* const value = FindParam(connStr, key, &length);
    if (length == 0) {
        return false;
    }
    *out = ToInt(value);
    return true;
}

bool GetParamUInt(const char* connStr, const char* key, u32* out) {
    assert(out != nullptr);
    u32 length = 0;
    const char* const value = FindParam(connStr, key, &length);
    if (length == 0) {
        return false;
    }
    *out = ToUInt(value);
    return true;
}

i32 ToInt(const char* text) {
    using Limits = std::numeric_limits<i32>;
    return static_cast<i32>(ToNumber(text, Limits::min(), Limits::max()));
}

u32 ToUInt(const char* text) {
    return static_cast<u32>(ToNumber(text, 0, std::numeric_limits<u32>::max()));
}

void AppendParam(std::string& s, const char* key, const char* value) {
    if (!s.empty()) {
        s += kSeparators[0];
    }
    s += key;
    s += '=';
    s += value;
}

void RemoveParam(std::string& s, const char* key, std::string& removedValue) {
    u32 length = 0;
    const char* item = nullptr;
    const char* const value = FindParam(s.c_str(), key, &length, &item);
    if (value == nullptr) {
        removedValue.clear();
        return;
    }
    removedValue.assign(value, length);
    const char* const end = value + length;
    const char* const behind = IsSeparator(*end) ? end + 1 : end;
    s.erase(static_cast<std::size_t>(item - s.c_str()), static_cast<std::size_t>(behind - item));
}

u32 TrimRight(const char* text, const char* set) {
    const std::size_t last = std::string_view(text).find_last_not_of(set);
    return last == std::string_view::npos ? 0 : static_cast<u32>(last + 1);
}

const char* Trim(const char* text, u32* len) {
    assert(text != nullptr && len != nullptr);
    text = SkipBlanks(text);
    *len = TrimRight(text, kBlanks);
    return text;
}

}  // namespace k9erepl
