// A folder of a test's own, removed with everything in it at the end. Used by every test that
// works with files; tests may run at the same time.
#ifndef K9EREPL_TESTS_SUPPORT_TEMP_FOLDER_H
#define K9EREPL_TESTS_SUPPORT_TEMP_FOLDER_H

#include <string>

namespace k9erepl::test {

class TempFolder {
  public:
    TempFolder();  // throws when no folder can be made
    ~TempFolder();
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
