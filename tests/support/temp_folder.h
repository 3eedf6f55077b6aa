// A folder of a test's own, removed with everything in it at the end. Used by every test that
// works with files; tests may run at the same time.
#ifndef K9EREPL_TESTS_SUPPORT_TEMP_FOLDER_H
#define K9EREPL_TESTS_SUPPORT_TEMP_FOLDER_H

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace k9erepl::test {

class TempFolder {
  public:
    // Throws when no folder can be made.
    TempFolder() {
        std::random_device random;
        std::filesystem::path path;
        do {
            path = std::filesystem::temp_directory_path() /
                   ("k9erepl_test_" + std::to_string(random()) + std::to_string(random()));
        } while (!std::filesystem::create_directory(path));
        m_path = path.string();
    }
    ~TempFolder() {
        std::error_code ignored;  // a folder that cannot be removed fails no test
        std::filesystem::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return m_path; }
    // The path of `name` in the folder; nothing is created.
    std::string File(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_SUPPORT_TEMP_FOLDER_H
