// A folder for one test of the C++ interface, and a storage in it. The folder goes with the test.
#ifndef K9EREPL_TESTS_CLIENT_CLIENT_STORAGE_H
#define K9EREPL_TESTS_CLIENT_CLIENT_STORAGE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <k9erepl/storage.hpp>
#include <random>
#include <string>
#include <vector>

namespace k9erepl::test {

class ClientStorage : public ::testing::Test {
  protected:
    ClientStorage() { std::filesystem::create_directory(m_folder); }
    ~ClientStorage() override { std::filesystem::remove_all(m_folder); }

    std::string Path() const { return (m_folder / "data.edb").string(); }
    // Small blocks, so that a few records already fill several.
    Settings InFile() const {
        return Settings().File(Path()).BlockSize(4096).FlushEveryTransactions(1);
    }
    Storage Opened() const { return Storage::OpenOrCreate(InFile()).Value(); }

    static std::vector<std::int64_t> RevsOf(const Storage& storage, std::int64_t from,
                                            std::int64_t to) {
        std::vector<std::int64_t> revs;
        for (const Record& record : storage.Records(from, to)) {
            revs.push_back(record.rev);
        }
        return revs;
    }

  private:
    const std::filesystem::path m_folder =
        std::filesystem::temp_directory_path() /
        ("k9erepl-client-" + std::to_string(std::random_device()()));
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_CLIENT_CLIENT_STORAGE_H
