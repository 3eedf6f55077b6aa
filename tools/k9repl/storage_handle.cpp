// Opens, loads and closes a storage, and builds the messages if that fails.
#include "storage_handle.h"

#include <fmt/format.h>

#include <cassert>
#include <filesystem>
#include <regex>
#include <system_error>
#include <utility>

#include "conn_string.h"
#include "files_beside.h"
#include "library_log.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::string NameOf(const std::string& path) {
    return path.empty() ? "the storage" : fmt::format("the storage '{}'", path);
}

bool IsMissing(const std::string& path) {
    std::error_code ignored;
    return !path.empty() && !std::filesystem::exists(path, ignored);
}

// A missing storage file is the most common mistake, so it has a message of its own.
void ExplainMissingFile(const std::string& path, std::uint32_t code) {
    if (code != RC_SYSTEM_ERROR || !IsMissing(path)) {
        return;
    }
    std::string sentence = MissingButBackedUp(path);
    if (sentence.empty()) {
        sentence = fmt::format("there is no storage file '{}'; append --create makes it", path);
    }
    throw ToolError(fmt::format("{} ({})", sentence, DescribeResult(code)));
}

// Puts read_only=yes first: of several items with the same key, the library reads the first one.
std::string ReadOnly(const std::string& conn) {
    return ConnValue(conn, "flush_mode") == "NoFlush" ? conn : "read_only=yes;" + conn;
}

// Returns `conn` with blocks so large that every record fits. Fewer of them are kept in memory,
// unless `conn` says how many.
std::string WithLargeBlocks(const std::string& conn) {
    const std::string fewer = ConnValue(conn, "cache_type").empty() ? "cache_type=Last10;" : "";
    return fmt::format("block_size={};{}{}", kFileRecordSizeMax, fewer, conn);
}

ToolError LoadError(const std::string& conn, const std::string& name, std::uint32_t code) {
    const ToolError error = LibraryError("load " + name, code);
    const std::string text = error.what();
    if (text.find("exceeds free block size") == std::string::npos) {
        return error;
    }
    return ToolError(fmt::format("{}; give more than {}: with block_size={} every record fits",
                                 text, BlockSizeInWords(conn), kFileRecordSizeMax));
}

}  // namespace

void CreateStorage(const std::string& conn) {
    const std::string path = StoragePath(conn);
    if (const std::string sentence = MissingButBackedUp(path); !sentence.empty()) {
        throw ToolError(sentence + "; to begin an empty storage, move the backup away first");
    }
    if (const std::uint32_t code =
            K9eReplStorageCreate(conn.c_str(), K9EREPL_CREATE_KEEP_EXISTING)) {
        throw LibraryError("create " + NameOf(path), code);
    }
}

StorageHandle::StorageHandle(const std::string& given, Access access)
    : m_path(StoragePath(given)), m_name(NameOf(m_path)) {
    const std::string conn = access == Access::kRead ? ReadOnly(given) : given;
    Open(conn);
    std::uint32_t code = Load();
    if (code == RC_INVALID_ARG && access == Access::kRead) {
        (void)LibraryLog::Instance().TakeFirst();
        Open(WithLargeBlocks(conn));
        code = Load();
    }
    if (code != RC_OK) {
        throw LoadError(conn, m_name, code);
    }
}

StorageHandle::~StorageHandle() {
    Close();
}

void StorageHandle::Open(const std::string& conn) {
    if (const std::uint32_t code = K9eReplStorageOpen(conn.c_str(), &m_handle)) {
        ExplainMissingFile(m_path, code);
        throw LibraryError("open " + m_name, code);
    }
}

std::uint32_t StorageHandle::Load() {
    const std::uint32_t code = K9eReplStorageLoad(m_handle);
    if (code != RC_OK) {
        Close();
        ExplainMissingFile(m_path, code);
    }
    return code;
}

void StorageHandle::Close() {
    if (void* handle = std::exchange(m_handle, nullptr)) {
        K9eReplStorageClose(handle);
    }
}

void StorageHandle::RequireFile(const std::string& done) const {
    void* file = nullptr;
    if (K9eReplStorageGetLLStorage(m_handle, &file) != RC_OK) {
        throw ToolError(fmt::format(
            "nothing {} {} would be kept: flush_mode=NoFlush writes no file", done, m_name));
    }
}

std::int64_t StorageHandle::NextRev() const {
    assert(m_handle != nullptr);
    std::int64_t nextRev = 0;
    Check(K9eReplStorageGetNextRev(m_handle, &nextRev), "ask the next revision of");
    return nextRev;
}

// The library reports damage only in its log. If the log goes elsewhere, look into the file.
std::optional<FileDamage> StorageHandle::TakeDamage() const {
    if (!LibraryLog::Instance().IsCatching()) {
        return m_path.empty() || IsMissing(m_path) ? std::nullopt : FindDamage(m_path);
    }
    const auto message = LibraryLog::Instance().TakeBeginningWith(kDamageMessage);
    static const std::regex kFigures(
        ";offset ([0-9]+),last good rev ([0-9]+),revs beyond "
        "([0-9]+)-([0-9]+)");
    std::smatch found;
    if (!message || !std::regex_search(message->text, found, kFigures)) {
        return std::nullopt;
    }
    return FileDamage{.offset = std::stoull(found[1]),
                      .lastRev = std::stoll(found[2]),
                      .beyondFrom = std::stoll(found[3]),
                      .beyondTo = std::stoll(found[4])};
}

void StorageHandle::Check(std::uint32_t code, const std::string& action) const {
    if (code != RC_OK) {
        throw LibraryError(action + " " + m_name, code);
    }
}

}  // namespace k9repl
