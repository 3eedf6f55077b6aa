// A folder of a test's own.
#include "support/temp_folder.h"

#include <filesystem>
#include <random>
#include <system_error>

namespace k9erepl::test {
namespace {

std::filesystem::path MakeUniqueFolder() {
    std::random_device random;
    for (;;) {
        auto path = std::filesystem::temp_directory_path() /
                    ("k9erepl_test_" + std::to_string(random()) + std::to_string(random()));
        if (std::filesystem::create_directory(path)) {
            return path;
        }
    }
}

}  // namespace

TempFolder::TempFolder() : m_path(MakeUniqueFolder().string()) {}

TempFolder::~TempFolder() {
    std::error_code ignored;  // a folder that cannot be removed fails no test
    std::filesystem::remove_all(m_path, ignored);
}

}  // namespace k9erepl::test
