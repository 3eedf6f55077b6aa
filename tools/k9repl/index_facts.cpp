// Reads the head of an index file (docs/index-file.md).
#include "index_facts.h"

#include <array>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <system_error>

namespace k9repl {

namespace {

constexpr std::size_t kHeaderSize = 32;
constexpr std::size_t kCountOffset = 16;
constexpr std::string_view kMagicAndVersion{"K9_EREPL_IDX\x03\0\0\0", kCountOffset};

}  // namespace

std::optional<std::uint32_t> IndexedBlocks(const std::string& path) {
    std::array<char, kHeaderSize> header{};
    std::ifstream file(path, std::ios::binary);
    if (!file.read(header.data(), header.size()) ||
        std::string_view(header.data(), kCountOffset) != kMagicAndVersion) {
        return std::nullopt;
    }
    std::uint32_t count = 0;
    for (std::size_t i = 0; i < sizeof count; ++i) {
        count |= static_cast<std::uint32_t>(static_cast<unsigned char>(header[kCountOffset + i]))
                 << (8 * i);
    }
    return count;
}

std::optional<std::uint64_t> FileSize(const std::string& path) {
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(path, error);
    return error ? std::nullopt : std::optional(size);
}

}  // namespace k9repl
