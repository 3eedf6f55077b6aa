// Walks over a storage file and judges it; see the header.
#include "storage_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "format/damage_search.h"
#include "format/storage_file_format.h"
#include "format/stream_rules.h"
#include "tool_error.h"

namespace k9repl {

namespace {

using k9erepl::CommitFault;
using k9erepl::kCommitBlockSize;
using k9erepl::kRecordHeadSize;
using k9erepl::kSignatureSize;
using k9erepl::LoadUnaligned;
using k9erepl::RecordFault;
using k9erepl::TCommitBlock;
using k9erepl::TFileHeader;
using k9erepl::TRecordHead;

constexpr std::uint64_t kWindowSize = std::uint64_t{1024} * 1024;

// Gives access to the file's bytes. Holds only a window of them in memory.
class FileBytes {
  public:
    explicit FileBytes(const std::string& path) : m_name("the storage file '" + path + "'") {
        std::error_code error;
        if (!std::filesystem::is_regular_file(path, error)) {
            throw error ? SystemError("read " + m_name, error)
                        : ToolError(m_name + " is not a regular file");
        }
        m_size = std::filesystem::file_size(path, error);
        errno = 0;
        m_file.open(path, std::ios::binary);
        if (error || !m_file) {
            throw SystemError("read " + m_name,
                              error ? error : std::error_code(errno, std::generic_category()));
        }
    }

    const std::string& Name() const { return m_name; }
    std::uint64_t Size() const { return m_size; }
    std::uint64_t Left(std::uint64_t offset) const { return m_size - std::min(offset, m_size); }

    // Valid until the next call. REQUIRES: the file has these bytes.
    const std::uint8_t* At(std::uint64_t offset, std::uint64_t size) {
        if (offset < m_offset || offset + size > m_offset + m_window.size()) {
            Fill(offset, std::max(size, kWindowSize));
        }
        return m_window.data() + (offset - m_offset);
    }

  private:
    void Fill(std::uint64_t offset, std::uint64_t size) {
        m_window.resize(static_cast<std::size_t>(std::min(size, Left(offset))));
        m_offset = offset;
        errno = 0;
        m_file.seekg(static_cast<std::streamoff>(offset));
        m_file.read(reinterpret_cast<char*>(m_window.data()),
                    static_cast<std::streamsize>(m_window.size()));
        if (!m_file) {
            throw SystemError("read " + m_name,
                              std::error_code(errno == 0 ? EIO : errno, std::generic_category()));
        }
    }

    std::string m_name;        // the file in a sentence
    std::uint64_t m_size = 0;  // of the file when it was opened, in bytes
    std::ifstream m_file;
    std::uint64_t m_offset = 0;          // of the window's first byte in the file
    std::vector<std::uint8_t> m_window;  // empty before the first read
};

void RequireStorage(FileBytes& file) {
    if (file.Size() < k9erepl::kFileHeaderSize) {
        throw ToolError(file.Name() + " is no storage: it has no header");
    }
    const auto header = LoadUnaligned<TFileHeader>(file.At(0, k9erepl::kFileHeaderSize));
    if (std::memcmp(header.signature, k9erepl::kHeaderSignature, k9erepl::kHeaderSignatureSize) !=
        0) {
        throw ToolError(file.Name() + " is no storage: it has another signature");
    }
    if (header.version != k9erepl::kFormatVersion) {
        throw ToolError(file.Name() + " is of another version");
    }
}

// Walks over the items as long as they follow the rules, and counts them in a StorageCheck.
class Walk {
  public:
    Walk(FileBytes& file, StorageCheck& check, std::int64_t keptFrom = 0)
        : m_file(file), m_check(check), m_keptFrom(keptFrom) {}

    void Run() {
        while (TakeItem()) {
        }
        m_check.stopOffset = m_at;
    }

    k9erepl::LastGoodCommit LastGood() const {
        return {.clearRev = m_end.clearRevBefore,
                .commitRev = m_end.committedBefore,
                .sequence = m_end.lastSequence};
    }

    // The offset of the first record at or above `keptFrom`; 0 if there is none.
    std::uint64_t KeptOffset() const { return m_keptOffset; }

  private:
    bool TakeItem() {
        if (m_file.Left(m_at) < kSignatureSize) {
            return false;
        }
        switch (LoadUnaligned<std::uint32_t>(m_file.At(m_at, kSignatureSize))) {
            case k9erepl::kRecordSignature:
                return MayTakeRecord(m_end) && TakeRecord();
            case k9erepl::kCommitSignature:
                return TakeCommit();
            default:
                return false;
        }
    }

    bool TakeRecord() {
        if (m_file.Left(m_at) < kRecordHeadSize) {
            return false;
        }
        const auto head = LoadUnaligned<TRecordHead>(m_file.At(m_at, kRecordHeadSize));
        if (CheckRecord(m_end, head) != RecordFault::kNone ||
            head.size > k9erepl::kFileRecordSizeMax || head.size > m_file.Left(m_at)) {
            return false;
        }
        if (m_keptOffset == 0 && head.rev >= m_keptFrom) {
            m_keptOffset = m_at;
        }
        AcceptRecord(head, &m_end);
        ++m_records;
        m_at += head.size;
        return true;
    }

    bool TakeCommit() {
        if (m_file.Left(m_at) < kCommitBlockSize) {
            return false;
        }
        const auto block = LoadUnaligned<TCommitBlock>(m_file.At(m_at, kCommitBlockSize));
        if (CheckCommit(m_end, block) != CommitFault::kNone) {
            return false;
        }
        AcceptCommit(block, static_cast<std::int64_t>(m_at), &m_end);
        m_check.clearRev = m_end.clearRev;
        m_check.lastRev = m_end.lastCommitted;
        ++m_check.commitBlocks;
        m_check.records = m_records;
        m_at += kCommitBlockSize;
        m_check.dataEnd = m_at;
        return true;
    }

    FileBytes& m_file;
    StorageCheck& m_check;
    const std::int64_t m_keptFrom;
    std::uint64_t m_keptOffset = 0;                    // see KeptOffset
    std::uint64_t m_at = k9erepl::kFirstCommitOffset;  // offset of the next item
    std::uint64_t m_records = 0;                       // records so far, committed or not
    k9erepl::StreamEnd m_end;                          // what the items so far say of the next one
};

std::uint64_t BytesInUse(FileBytes& file, std::uint64_t from) {
    std::uint64_t end = from;
    for (std::uint64_t at = from; at < file.Size();) {
        const std::uint64_t size = std::min(kWindowSize, file.Left(at));
        const std::uint8_t* const bytes = file.At(at, size);
        for (std::uint64_t i = 0; i < size; ++i) {
            end = bytes[i] == 0 ? end : at + i + 1;
        }
        at += size;
    }
    return end - from;
}

// Looks for data after the place where the walk ended. As in a load, only if the walk ended at
// bytes that are not zero. Returns true for damage in the middle.
bool FindBeyond(FileBytes& file, const k9erepl::LastGoodCommit& last, StorageCheck& check) {
    const std::uint64_t left = file.Left(check.stopOffset);
    if (left < kSignatureSize ||
        LoadUnaligned<std::uint32_t>(file.At(check.stopOffset, kSignatureSize)) == 0) {
        return false;
    }
    const auto size =
        static_cast<std::size_t>(std::min<std::uint64_t>(left, k9erepl::kDamageSearchSize));
    const k9erepl::BeyondDamage beyond =
        k9erepl::SearchBeyondDamage(file.At(check.stopOffset, size), size, last);
    check.beyondFrom = beyond.lowestRev;
    check.beyondTo = beyond.highestRev;
    return beyond.IsDamage();
}

}  // namespace

std::optional<FileDamage> FindDamage(const std::string& path) {
    const StorageCheck check = CheckStorageFile(path);
    if (check.state != StorageState::kDamaged) {
        return std::nullopt;
    }
    return FileDamage{.offset = check.stopOffset,
                      .lastRev = check.lastRev,
                      .beyondFrom = check.beyondFrom,
                      .beyondTo = check.beyondTo};
}

std::string Describe(const FileDamage& damage, const std::string& path) {
    return fmt::format(
        "the storage file '{}' is damaged in the middle, at offset {}, behind revision {}; "
        "revisions {} to {} lie behind the damage",
        path, damage.offset, damage.lastRev, damage.beyondFrom, damage.beyondTo);
}

std::uint64_t SqueezedSize(const std::string& path, std::int64_t keptFrom) {
    try {
        FileBytes file(path);
        StorageCheck check;
        Walk walk(file, check, keptFrom);
        walk.Run();
        const std::uint64_t kept = walk.KeptOffset();
        const bool allIsKept = kept <= k9erepl::kFirstItemOffset;
        return allIsKept ? 0 : k9erepl::kFirstItemOffset + (check.dataEnd - kept);
    } catch (const ToolError&) {
        return 0;
    }
}

namespace {

StorageCheck CheckOnce(const std::string& path) {
    FileBytes file(path);
    RequireStorage(file);
    StorageCheck check;
    check.fileSize = file.Size();
    Walk walk(file, check);
    walk.Run();
    if (check.commitBlocks == 0) {
        throw ToolError(file.Name() + " cannot be loaded: it has no first commit block");
    }
    check.abandonedBytes = BytesInUse(file, check.dataEnd);
    if (FindBeyond(file, walk.LastGood(), check)) {
        check.state = StorageState::kDamaged;
    } else if (check.abandonedBytes > 0) {
        check.state = StorageState::kTorn;
    }
    return check;
}

}  // namespace

// While another process writes, a half-written head can look like damage. It is complete soon, so
// check a damaged file twice.
StorageCheck CheckStorageFile(const std::string& path) {
    const StorageCheck check = CheckOnce(path);
    return check.state == StorageState::kDamaged ? CheckOnce(path) : check;
}

}  // namespace k9repl
