// The table of known settings, the check of a connection string against it, and the few values that
// the tool itself needs.
#include "conn_string.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "engine/open_settings.h"
#include "format/storage_file_format.h"
#include "index/index_file_name.h"
#include "support/params.h"

namespace k9repl {

namespace {

constexpr std::string_view kSeparators = ";,";
constexpr std::string_view kBlanks = " \t";

std::string_view WithoutLeading(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(kBlanks), text.size()));
}

std::string_view WithoutTrailing(std::string_view text) {
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// One item of a connection string. Valid as long as the string.
struct ConnItem {
    std::string_view key;    // without blanks around it
    std::string_view value;  // without blanks in front of it; empty if the item has no "="
};

// Returns the items in their order, without empty ones (";;").
std::vector<ConnItem> ConnItems(std::string_view conn) {
    std::vector<ConnItem> items;
    while (!conn.empty()) {
        const std::size_t itemSize = std::min(conn.find_first_of(kSeparators), conn.size());
        const std::string_view item = conn.substr(0, itemSize);
        const std::size_t keySize = std::min(item.find('='), item.size());
        const std::string_view key = WithoutTrailing(WithoutLeading(item.substr(0, keySize)));
        const std::size_t valueAt = std::min(keySize + 1, item.size());
        if (!key.empty() || keySize < item.size()) {
            items.push_back({key, WithoutLeading(item.substr(valueAt))});
        }
        conn.remove_prefix(std::min(itemSize + 1, conn.size()));
    }
    return items;
}

// The library ignores items that it does not know. The tool refuses them, so that the user notices
// a typing error before it costs data.
enum class ValueKind {
    kPath,         // any text
    kNumber,       // an optional sign, then decimal digits
    kWord,         // one of the words, as written
    kWordAnyCase,  // one of the words, in any case of letters
    kCache,        // AllInMem, or Last and digits
};

struct Setting {
    std::string_view key;
    ValueKind kind;
    // The words that are allowed, and of which an error message suggests the nearest one. Empty for
    // a path or a number.
    std::vector<std::string_view> words = {};
    // The library reads this setting only if the setting `neededKey` has the value `neededValue`.
    // Both are empty if the library always reads it.
    std::string_view neededKey = {};
    std::string_view neededValue = {};
};

// docs/configuration.md describes each of them.
const std::vector<Setting>& KnownSettings() {
    static const std::vector<std::string_view> yesNo = {"yes", "no"};
    static const std::vector<Setting> settings = {
        {"file", ValueKind::kPath},
        {"index_file", ValueKind::kPath},
        {"file_initial_size", ValueKind::kNumber},
        {"file_size_delta", ValueKind::kNumber},
        {"file_lock", ValueKind::kWord, yesNo},
        {"read_only", ValueKind::kWord, yesNo},
        {"check", ValueKind::kWord, yesNo},
        {"force_flush", ValueKind::kWord, yesNo},
        {"commit_barrier", ValueKind::kWord, yesNo, "force_flush", "yes"},
        {"write_through", ValueKind::kWord, yesNo},
        {"cache_type", ValueKind::kCache, {"AllInMem", "Last100"}},
        {"block_size", ValueKind::kNumber},
        {"memory_reserve", ValueKind::kNumber},
        {"read_buffers_count", ValueKind::kNumber},
        {"range_index_memory", ValueKind::kNumber},
        {"flush_mode", ValueKind::kWord, {"PerTrans", "PerData", "NoFlush"}},
        {"flush_trans_num", ValueKind::kNumber, {}, "flush_mode", "PerTrans"},
        {"flush_data_size", ValueKind::kNumber, {}, "flush_mode", "PerData"},
        {"flush_timeout", ValueKind::kNumber},
        {"index_hint", ValueKind::kNumber},
        {"aux_affinity", ValueKind::kNumber},
        {"async_mode", ValueKind::kWordAnyCase, yesNo},
        {"async_buffer_size", ValueKind::kNumber, {}, "async_mode", "yes"},
    };
    return settings;
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
    return lower;
}

// Returns the smallest number of letters to insert, drop or exchange that turns `from` into `to`.
std::size_t EditDistance(const std::string& from, const std::string& to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < from.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < to.size(); ++j) {
            const std::size_t exchanged = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({exchanged, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

// REQUIRES: `known` is not empty.
std::string_view Nearest(std::string_view given, const std::vector<std::string_view>& known) {
    const std::string lower = Lower(given);
    return *std::min_element(known.begin(), known.end(), [&](auto a, auto b) {
        return EditDistance(lower, Lower(a)) < EditDistance(lower, Lower(b));
    });
}

const Setting* FindSetting(std::string_view key) {
    const auto& settings = KnownSettings();
    const auto found = std::find_if(settings.begin(), settings.end(),
                                    [&](const Setting& setting) { return setting.key == key; });
    return found == settings.end() ? nullptr : &*found;
}

std::string UnknownKey(std::string_view key) {
    std::vector<std::string_view> keys;
    for (const Setting& setting : KnownSettings()) {
        keys.push_back(setting.key);
    }
    return fmt::format("unknown key '{}'; the nearest known one is '{}'", key, Nearest(key, keys));
}

bool IsDigits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

bool IsNumber(std::string_view text) {
    const bool hasSign = !text.empty() && (text.front() == '-' || text.front() == '+');
    return IsDigits(text.substr(hasSign ? 1 : 0));
}

bool IsAmong(std::string_view value, const Setting& setting) {
    return std::any_of(setting.words.begin(), setting.words.end(), [&](std::string_view word) {
        return word == value ||
               (setting.kind == ValueKind::kWordAnyCase && Lower(word) == Lower(value));
    });
}

bool IsCache(std::string_view value, const Setting& setting) {
    constexpr std::string_view kLast = "Last";
    return IsAmong(value, setting) ||
           (value.starts_with(kLast) && IsDigits(value.substr(kLast.size())));
}

std::string WrongValue(const ConnItem& item, const Setting& setting) {
    switch (setting.kind) {
        case ValueKind::kPath:
            return {};
        case ValueKind::kNumber:
            return IsNumber(item.value)
                       ? std::string()
                       : fmt::format("{}={} is no number; write digits only", item.key, item.value);
        case ValueKind::kCache:
            if (IsCache(item.value, setting)) {
                return {};
            }
            break;
        default:
            if (IsAmong(item.value, setting)) {
                return {};
            }
    }
    return fmt::format("unknown value '{}' of {}; the nearest known one is '{}'", item.value,
                       item.key, Nearest(item.value, setting.words));
}

bool HasWhatItNeeds(const std::vector<ConnItem>& items, const Setting& setting) {
    return std::any_of(items.begin(), items.end(), [&](const ConnItem& item) {
        return item.key == setting.neededKey && Lower(item.value) == Lower(setting.neededValue);
    });
}

std::string WrongItem(const std::vector<ConnItem>& items, const ConnItem& item) {
    const Setting* const setting = FindSetting(item.key);
    if (setting == nullptr) {
        return UnknownKey(item.key);
    }
    if (item.value.empty()) {
        return fmt::format("'{}' has no value; write {}=VALUE, or leave it out", item.key,
                           item.key);
    }
    if (std::string wrong = WrongValue(item, *setting); !wrong.empty()) {
        return wrong;
    }
    const auto count = std::count_if(items.begin(), items.end(),
                                     [&](const ConnItem& other) { return other.key == item.key; });
    if (count > 1) {
        return fmt::format("'{}' is given {} times; only the first would count: leave one",
                           item.key, count);
    }
    if (!setting->neededKey.empty() && !HasWhatItNeeds(items, *setting)) {
        return fmt::format("{} has no effect without {}={}; add that, or leave it out", item.key,
                           setting->neededKey, setting->neededValue);
    }
    return {};
}

std::uint32_t BlockSize(const std::string& conn) {
    std::uint32_t size = k9erepl::OpenSettings().blockSize;
    (void)k9erepl::GetParamUInt(conn.c_str(), "block_size", &size);
    return size;
}

}  // namespace

std::string WhatIsWrongWith(std::string_view conn) {
    const std::vector<ConnItem> items = ConnItems(conn);
    for (const ConnItem& item : items) {
        if (std::string wrong = WrongItem(items, item); !wrong.empty()) {
            return wrong;
        }
    }
    return {};
}

std::string ConnValue(const std::string& conn, const char* key) {
    std::string value;
    k9erepl::GetParam(conn.c_str(), key, value);
    return value;
}

std::string StoragePath(const std::string& conn) {
    return ConnValue(conn, "file");
}

std::string IndexPath(const std::string& conn) {
    return k9erepl::IndexFileName(conn.c_str());
}

std::string BlockSizeInWords(const std::string& conn) {
    const bool given = !ConnValue(conn, "block_size").empty();
    return fmt::format("block_size={}{}", BlockSize(conn), given ? "" : ", the default");
}

RecordLimit RecordLimitOf(const std::string& conn) {
    using k9erepl::kRecordHeadSize;
    const std::uint32_t recordSize = std::min(BlockSize(conn), kFileRecordSizeMax);
    const std::uint32_t dataSize = recordSize > kRecordHeadSize ? recordSize - kRecordHeadSize : 0;
    if (recordSize == kFileRecordSizeMax) {
        return {dataSize,
                "the most that a record of a storage file can have, whatever its block_size; cut "
                "it into smaller records"};
    }
    return {dataSize, fmt::format("the most that a record can have with {}; give a block_size of "
                                  "the record's bytes and 24 more, at most {}",
                                  BlockSizeInWords(conn), kFileRecordSizeMax)};
}

}  // namespace k9repl
