// Whole files and their bytes.
#include "support/file_bytes.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace k9erepl::test {
namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << path;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void WriteAt(std::fstream& file, i64 offset, const void* data, std::size_t size) {
    file.seekp(offset);
    file.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
    file.close();
}

void Create(const std::string& path, const void* data, std::size_t size) {
    std::fstream file(path, std::ios::binary | std::ios::out | std::ios::trunc);
    WriteAt(file, 0, data, size);
    EXPECT_TRUE(file.good()) << path;
}

}  // namespace

std::vector<u8> ReadBytes(const std::string& path) {
    const std::string all = ReadAll(path);
    return {all.begin(), all.end()};
}

std::string ReadText(const std::string& path) {
    return ReadAll(path);
}

void WriteBytes(const std::string& path, std::span<const u8> bytes) {
    Create(path, bytes.data(), bytes.size());
}

void WriteText(const std::string& path, const std::string& text) {
    Create(path, text.data(), text.size());
}

void PatchBytes(const std::string& path, i64 offset, std::span<const u8> bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    WriteAt(file, offset, bytes.data(), bytes.size());
    EXPECT_TRUE(file.good()) << path;
}

void ResizeFile(const std::string& path, i64 size) {
    std::error_code error;
    std::filesystem::resize_file(path, static_cast<std::uintmax_t>(size), error);
    EXPECT_FALSE(error) << path << ": " << error.message();
}

bool Exists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

i64 FileSize(const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    EXPECT_FALSE(error) << path << ": " << error.message();
    return error ? -1 : static_cast<i64>(size);
}

}  // namespace k9erepl::test
