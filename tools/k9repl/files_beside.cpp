// Looks for the files, and builds the sentences about them.
#include "files_beside.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>

#include "storage_check.h"
#include "system.h"
#include "tool_error.h"

namespace k9repl {

namespace {

// Bytes that a squeeze needs besides the copy: for the commit block that records the clear, in the
// old file and in the copy, and for the index file.
constexpr std::uint64_t kCopySpare = 4096;

std::optional<FileBeside> Find(const std::string& storagePath, const char* ending) {
    if (storagePath.empty()) {
        return std::nullopt;
    }
    const std::string path = FollowLink(storagePath) + ending;
    const std::optional<std::uint64_t> size = FileSize(path);
    return size ? std::optional(FileBeside{path, *size}) : std::nullopt;
}

}  // namespace

std::optional<std::uint64_t> FileSize(const std::string& path) {
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(path, error);
    return error ? std::nullopt : std::optional(size);
}

std::optional<FileBeside> FindTemporary(const std::string& storagePath) {
    return Find(storagePath, ".temporary");
}

std::optional<FileBeside> FindBackup(const std::string& storagePath) {
    return Find(storagePath, ".backup");
}

std::optional<FileBeside> FindDamagedTail(const std::string& storagePath) {
    return Find(storagePath, ".damaged-tail");
}

std::string Describe(const FileBeside& file) {
    return fmt::format("'{}' ({} bytes)", file.path, file.size);
}

std::string MissingButBackedUp(const std::string& storagePath) {
    std::error_code ignored;
    const std::optional<FileBeside> backup = FindBackup(storagePath);
    if (!backup || std::filesystem::exists(storagePath, ignored)) {
        return {};
    }
    return fmt::format(
        "there is no storage file '{}', but its backup {} is there; when a squeeze was cut off, "
        "all data is in the backup: rename it to '{}'",
        storagePath, Describe(*backup), FollowLink(storagePath));
}

std::string TemporaryInTheWay(const std::string& storagePath) {
    const std::optional<FileBeside> temporary = FindTemporary(storagePath);
    if (!temporary) {
        return {};
    }
    return fmt::format(
        "{} is in the way, the unfinished copy of a squeeze that was cut off; the storage at '{}' "
        "is whole: delete '{}' and run the command again",
        Describe(*temporary), storagePath, temporary->path);
}

std::string NoRoomForCopy(const std::string& storagePath, std::int64_t keptFrom) {
    std::error_code error;
    const std::filesystem::path folder =
        std::filesystem::absolute(FollowLink(storagePath), error).parent_path();
    const std::filesystem::space_info room = std::filesystem::space(folder, error);
    const std::optional<std::uint64_t> fileSize = FileSize(storagePath);
    // The copy is never larger than the file. Read the file only if the file itself would not fit.
    if (error || !fileSize || *fileSize + kCopySpare <= room.available) {
        return {};
    }
    const std::uint64_t copySize = SqueezedSize(storagePath, keptFrom);
    if (copySize == 0 || copySize + kCopySpare <= room.available) {
        return {};
    }
    return fmt::format(
        "the copy of what is kept needs {} bytes in '{}', where {} are free; make room, or use "
        "--mode logical, which needs none",
        copySize + kCopySpare, folder.string(), room.available);
}

}  // namespace k9repl
