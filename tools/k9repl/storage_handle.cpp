// Opening, loading and closing.
#include "storage_handle.h"

#include <fmt/format.h>

#include <cassert>
#include <filesystem>
#include <system_error>
#include <utility>

#include "conn_string.h"
#include "result_names.h"
#include "tool_error.h"

namespace k9repl {

namespace {

std::string NameOf(const std::string& conn) {
    const std::string path = StoragePath(conn);
    return path.empty() ? "the storage" : fmt::format("the storage '{}'", path);
}

// A storage that is not there is the commonest slip; it gets a sentence of its own.
void ExplainMissingFile(const std::string& conn, std::uint32_t code) {
    const std::string path = StoragePath(conn);
    std::error_code ignored;
    if (code == RC_SYSTEM_ERROR && !path.empty() && !std::filesystem::exists(path, ignored)) {
        throw ToolError(fmt::format("there is no storage file '{}'; append --create makes it ({})",
                                    path, DescribeResult(code)));
    }
}

}  // namespace

void CreateStorage(const std::string& conn) {
    constexpr std::uint32_t kKeepExisting = 0x2;
    if (const std::uint32_t code = K9eReplStorageCreate(conn.c_str(), kKeepExisting)) {
        throw LibraryError("create " + NameOf(conn), code);
    }
}

StorageHandle::StorageHandle(const std::string& conn) : m_name(NameOf(conn)) {
    Open(conn);
    const std::uint32_t code = K9eReplStorageLoad(m_handle);
    if (code != RC_OK) {
        Close();
        throw LibraryError("load " + m_name, code);
    }
}

StorageHandle::~StorageHandle() {
    Close();
}

void StorageHandle::Open(const std::string& conn) {
    if (const std::uint32_t code = K9eReplStorageOpen(conn.c_str(), &m_handle)) {
        ExplainMissingFile(conn, code);
        throw LibraryError("open " + m_name, code);
    }
}

void StorageHandle::Close() {
    if (void* handle = std::exchange(m_handle, nullptr)) {
        K9eReplStorageClose(handle);
    }
}

bool StorageHandle::HasFile() const {
    void* file = nullptr;
    return K9eReplStorageGetLLStorage(m_handle, &file) == RC_OK;
}

std::int64_t StorageHandle::NextRev() const {
    assert(m_handle != nullptr);
    std::int64_t nextRev = 0;
    Check(K9eReplStorageGetNextRev(m_handle, &nextRev), "ask the next revision of");
    return nextRev;
}

void StorageHandle::Check(std::uint32_t code, const std::string& action) const {
    if (code != RC_OK) {
        throw LibraryError(action + " " + m_name, code);
    }
}

}  // namespace k9repl
