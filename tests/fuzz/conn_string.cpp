// Fuzz target: the input is a connection string. Its items are compared with a plain reading of
// the string, then storages are opened with it: without a file, and with one on a disk in memory.
#include <k9erepl/storage.h>

#include <cerrno>
#include <limits>
#include <string_view>

#include "fuzz/target.h"
#include "model/seed_run.h"
#include "model/storage_client.h"
#include "reliability/memory_disk.h"
#include "reliability/steady_calls.h"
#include "support/params.h"

namespace k9erepl::fuzz {

namespace {

constexpr std::array kKeys = {
    "file",          "index_file",      "file_initial_size",  "file_size_delta",
    "force_flush",   "commit_barrier",  "write_through",      "cache_type",
    "block_size",    "memory_reserve",  "read_buffers_count", "flush_mode",
    "flush_timeout", "flush_trans_num", "flush_data_size",    "index_hint",
    "aux_affinity",  "async_mode",      "async_buffer_size",  "file_lock",
    "read_only",     "check",
};
constexpr i32 kMostBlocks = 1 << 20;
constexpr i32 kLargestBlock = 1 << 24;

std::string_view Trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t");
    return first == text.npos ? "" : text.substr(first, text.find_last_not_of(" \t") + 1 - first);
}

// The value of the first item with the key; a key without "=" has none.
std::string PlainValue(std::string_view text, std::string_view key) {
    for (;;) {
        const std::size_t end = text.find_first_of(";,");
        const std::string_view item = text.substr(0, end);
        const std::size_t equals = item.find('=');
        if (Trimmed(item.substr(0, equals)) == key) {
            const std::string_view value = equals == item.npos ? "" : item.substr(equals + 1);
            const std::size_t start = value.find_first_not_of(" \t");
            return std::string(start == value.npos ? "" : value.substr(start));
        }
        if (end == text.npos) {
            return "";
        }
        text.remove_prefix(end + 1);
    }
}

template <typename T>
T PlainNumber(const std::string& value) {
    using Limits = std::numeric_limits<T>;
    const long long number = std::strtoll(value.c_str(), nullptr, 10);
    return static_cast<T>(std::clamp<long long>(number, Limits::lowest(), Limits::max()));
}

void CompareItems(const std::string& text) {
    for (const char* const key : kKeys) {
        const std::string expected = PlainValue(text, key);
        std::string value;
        GetParam(text.c_str(), key, value);
        Expect(value == expected, std::string("value of ") + key);
        i32 number = 0;
        Expect(GetParamInt(text.c_str(), key, &number) == !value.empty(), "a number is there");
        Expect(value.empty() || number == PlainNumber<i32>(value), "signed number");
        u32 positive = 0;
        Expect(GetParamUInt(text.c_str(), key, &positive) == !value.empty(), "and unsigned, too");
        Expect(value.empty() || positive == PlainNumber<u32>(value), "unsigned number");
    }
}

void TakeItemsOut(std::string text) {
    for (const char* const key : kKeys) {
        const std::string before = text;
        const std::string value = PlainValue(text, key);
        std::string removed = "something";
        RemoveParam(text, key, removed);
        Expect(removed == value, std::string("removed value of ") + key);
        Expect(text.size() <= before.size(), "an item taken out makes the string longer");
        AppendParam(text, "new", before.substr(0, before.find_first_of(";,")).c_str());
    }
}

// Sizes that would only fill the memory are not tried.
bool IsSmall(const std::string& text) {
    return PlainNumber<i32>(PlainValue(text, "memory_reserve")) <= kMostBlocks &&
           PlainNumber<u32>(PlainValue(text, "block_size")) <= u32{kLargestBlock} &&
           PlainNumber<i32>(PlainValue(text, "file_initial_size")) <= 4 &&
           PlainNumber<i32>(PlainValue(text, "file_size_delta")) <= 4;
}

// `settings` may say more, but not less, than what makes it fast.
void OpenAndInsert(const std::string& settings) {
    const std::string connString = settings + ";read_buffers_count=1";
    model::StorageClient client;
    if (client.Open(connString) != RC_OK || K9eReplStorageLoad(client.Handle()) != RC_OK) {
        return;
    }
    i64 rev = 0;
    const auto planned = model::MakeRecord({model::SizeClass::kBytes, 100}, 138, 1);
    const i64 next = client.NextRev();
    Expect(client.Insert(planned, nullptr, &rev) == RC_OK, "inserting a small record");
    Expect(rev == next && client.NextRev() == next + 1, "the revision of the record");
    u32 seen = 0;
    const u32 rc = client.Enumerate(next, next, [&seen](const K9eReplRec&) {
        ++seen;
        return u32{RC_OK};
    });
    Expect(rc == RC_OK && seen == 1, "reading the record");
}

void OpenStorages(const std::string& text) {
    const reliability::SteadyCalls steady;
    const reliability::MemoryDisk disk;
    const std::string path = std::string("file=") + reliability::kFolder + "storage.edb;";
    const std::string inMemory = "cache_type=AllInMem;flush_mode=NoFlush;file=:memory:;";
    OpenAndInsert(inMemory + text);
    // Twice, so that something is there to be loaded; then with the string's own file.
    K9eReplStorageCreate((path + text).c_str(), 0);
    OpenAndInsert(path + text);
    OpenAndInsert(path + text);
    K9eReplStorageCreate(text.c_str(), K9EREPL_CREATE_REPLACE);
    OpenAndInsert(text);
    K9eReplStorageDelete(text.c_str());
    K9eReplStorageDelete((path + text).c_str());
}

}  // namespace

}  // namespace k9erepl::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace k9erepl::fuzz;
    k9erepl::model::KeepQuiet();
    // It ends where a C string ends.
    const std::string text = Input(data, size).Rest().c_str();
    CompareItems(text);
    TakeItemsOut(text);
    if (IsSmall(text)) {
        OpenStorages(text);
    }
    return 0;
}
