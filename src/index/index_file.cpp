// Reads and deletes the index file. Nothing in the file is trusted before it is checked.
#include "index/index_file.h"

#include <k9erepl/storage.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <new>

#include "format/storage_file_format.h"
#include "platform/file.h"
#include "platform/file_names.h"
#include "platform/memory.h"
#include "platform/system_error.h"
#include "support/log.h"

namespace k9erepl {

namespace {

constexpr u32 kReadBufferSize = 1024 * 1024;

static_assert(kReadBufferSize % sizeof(TIndexEntry) == 0, "an entry never spans two reads");

constexpr platform::FileOpenRequest kReadRequest = {
    .access = platform::FileAccess::kRead,
    .disposition = platform::FileDisposition::kOpenExisting,
    .sharing = platform::FileSharing::kAll,  // another process may be writing it
    .sequentialScan = true,
};

// Reads one index file once.
class IndexFileReader {
  public:
    explicit IndexFileReader(const std::string& path) : m_path(path) {}

    // On failure *content may hold some of the entries.
    [[nodiscard]] ResultCode Read(IndexFileContent* content);

  private:
    [[nodiscard]] ResultCode Open();
    [[nodiscard]] ResultCode ReadHeader();
    [[nodiscard]] ResultCode CheckHeader();
    [[nodiscard]] ResultCode ReadEntries(std::vector<TIndexEntry>* entries);
    [[nodiscard]] ResultCode ReadPart(void* data, u32 size);
    [[nodiscard]] ResultCode TakeEntries(u32 count, std::vector<TIndexEntry>* entries);

    const std::string& m_path;
    platform::File m_file;
    platform::MemoryBuffer m_buffer;
    TIndexHeader m_header = {};
    // The last entry taken, at first one that is below any: each must be above the one before it.
    TIndexEntry m_last = {.rev = 0, .offset = -1};
    u32 m_checksum = 0;  // over the entries taken
};

ResultCode IndexFileReader::Read(IndexFileContent* content) {
    ResultCode rc = Open();
    if (rc == RC_OK) {
        rc = ReadHeader();
    }
    if (rc == RC_OK) {
        rc = CheckHeader();
    }
    if (rc == RC_OK) {
        rc = ReadEntries(&content->entries);
    }
    if (rc != RC_OK) {
        return rc;
    }
    if (m_checksum != m_header.checksum) {
        LOG_WARNING(kLogIndex, "Wrong checksum");
        return RC_NOT_FOUND;
    }
    content->blockSize = m_header.blockSize;
    LOG_INFO(kLogIndex, "Index file seems to be valid (%u idx, sz %u)", u32{m_header.count},
             u32{m_header.blockSize});
    return RC_OK;
}

ResultCode IndexFileReader::Open() {
    if (!m_file.Open(m_path.c_str(), kReadRequest)) {
        LOG_WARNING(kLogIndex, "Couldn't open file '%s'; err %R, syserr %r", m_path.c_str(),
                    u32{RC_SYSTEM_ERROR}, platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    m_buffer = platform::AllocBuffer(kReadBufferSize);
    if (m_buffer == nullptr) {
        LOG_ERROR_CODE(RC_NO_MEMORY, kLogIndex, "Couldn't allocate buffer");
        return RC_NO_MEMORY;
    }
    return RC_OK;
}

ResultCode IndexFileReader::ReadHeader() {
    const ResultCode rc = ReadPart(&m_header, sizeof m_header);
    if (rc != RC_OK) {
        LOG_WARNING(kLogIndex, "Couldn't read header; err %R", rc);
    }
    return rc;
}

ResultCode IndexFileReader::CheckHeader() {
    i64 size = 0;
    const bool hasSize = m_file.GetSize(&size);
    const bool isValid =
        hasSize && std::memcmp(m_header.magic, kIndexMagic, kIndexMagicSize) == 0 &&
        m_header.version == kIndexVersion &&
        size == i64{sizeof(TIndexHeader)} + i64{sizeof(TIndexEntry)} * i64{m_header.count};
    if (!isValid) {
        LOG_WARNING(kLogIndex, "Check file header failed");
    }
    if (!hasSize) {
        return RC_SYSTEM_ERROR;
    }
    return isValid ? RC_OK : RC_NOT_FOUND;
}

// The memory for the entries grows with what was read and checked, whatever the header claims.
u32 IndexFileReader::ReadEntries(std::vector<TIndexEntry>* entries) {
    constexpr u32 kMaxPart = kReadBufferSize / sizeof(TIndexEntry);
    u32 part = 0;
    for (u32 left = m_header.count; left != 0; left -= part) {
        part = std::min(left, kMaxPart);
        ResultCode rc = ReadPart(m_buffer.get(), part * u32{sizeof(TIndexEntry)});
        if (rc != RC_OK) {
            LOG_WARNING(kLogIndex, "Couldn't read file; err %R; syserr %r", rc,
                        platform::LastSystemError());
            return rc;
        }
        rc = TakeEntries(part, entries);
        if (rc != RC_OK) {
            return rc;
        }
    }
    return RC_OK;
}

u32 IndexFileReader::ReadPart(void* data, u32 size) {
    u32 got = 0;
    if (!m_file.Read(data, size, &got)) {
        return RC_SYSTEM_ERROR;
    }
    return got == size ? RC_OK : RC_SHORT_READ;
}

u32 IndexFileReader::TakeEntries(u32 count, std::vector<TIndexEntry>* entries) {
    assert(count <= kReadBufferSize / sizeof(TIndexEntry));
    for (u32 i = 0; i < count; ++i) {
        TIndexEntry entry;
        std::memcpy(&entry, m_buffer.get() + i * sizeof entry, sizeof entry);
        if (entry.rev <= m_last.rev || entry.offset <= m_last.offset) {
            LOG_WARNING(kLogIndex, "Wrong index data");
            return RC_NOT_FOUND;
        }
        m_checksum ^= IndexEntryChecksum(entry.rev, entry.offset);
        entries->push_back(entry);
        m_last = entry;
    }
    return RC_OK;
}

}  // namespace

ResultCode ReadIndexFile(const std::string& path, IndexFileContent* content) {
    assert(content != nullptr);
    ResultCode rc = RC_OK;
    IndexFileContent found;
    try {
        rc = IndexFileReader(path).Read(&found);
    } catch (const std::bad_alloc&) {
        rc = RC_NO_MEMORY;
        LOG_ERROR_CODE(rc, kLogIndex, "Couldn't allocate buffer");
    }
    *content = rc == RC_OK ? std::move(found) : IndexFileContent();
    return rc;
}

bool IsStorageFile(const std::string& path) {
    platform::FileIdentity found;
    platform::File file;
    bool isStorage = false;
    return platform::GetIdentity(path, &found) &&  // usually there is no file to open
           file.Open(path.c_str(), {.access = platform::FileAccess::kRead}) &&
           IsStorageFile(file, &isStorage) && isStorage;
}

// An index file begins with the same eight letters. Where a storage file has its version, the rest
// of the index file's magic reads as a large number, even when a part of it is damaged.
bool IsStorageFile(platform::File& file, bool* isStorage) {
    constexpr u32 kVersionsMost = 31;
    struct {
        char signature[kHeaderSignatureSize];
        u32 version;
    } start = {};
    *isStorage = false;
    i64 size = 0;
    u32 got = 0;
    if (!file.GetSize(&size) || (size > 0 && !file.Read(&start, sizeof start, &got))) {
        return false;
    }
    *isStorage = size >= kFirstItemOffset && got == sizeof start &&
                 std::memcmp(start.signature, kHeaderSignature, kHeaderSignatureSize) == 0 &&
                 start.version != 0 && start.version <= kVersionsMost;
    return true;
}

ResultCode RefuseStorageFile(const std::string& path) {
    LOG_ERROR_CODE(RC_INVALID_ARG, kLogIndex,
                   "Index file is a storage file, nothing was changed;path '%s'", path.c_str());
    return RC_INVALID_ARG;
}

ResultCode DeleteIndexFile(const char* connStr) {
    const std::string path = IndexFileName(connStr);
    if (path.empty()) {
        return RC_OK;
    }
    if (IsStorageFile(path)) {
        return RefuseStorageFile(path);
    }
    if (!platform::RemoveFile(path)) {
        if (platform::LastSystemErrorIs(platform::SystemErrorKind::kNotFound)) {
            LOG_INFO(kLogIndex, "No index file to delete;path '%s'", path.c_str());
            return RC_OK;
        }
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Cannot delete index file;path '%s'",
                       path.c_str());
        return RC_SYSTEM_ERROR;
    }
    LOG_INFO(kLogIndex, "Deleted index file '%s'", path.c_str());
    return RC_OK;
}

}  // namespace k9erepl
