// A temporary folder and short ways to open, fill and look at files in it.
#ifndef K9EREPL_TESTS_PLATFORM_FILES_FIXTURE_H
#define K9EREPL_TESTS_PLATFORM_FILES_FIXTURE_H

#include <gtest/gtest.h>

#include <string>

#include "platform/file.h"
#include "platform/system_error.h"
#include "support/fault_injection.h"
#include "support/file_bytes.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

class FilesFixture : public ::testing::Test {
  protected:
    using File = platform::File;
    using FileAccess = platform::FileAccess;
    using FileDisposition = platform::FileDisposition;
    using FileOpenRequest = platform::FileOpenRequest;

    std::string PathOf(const std::string& name) const { return m_folder.File(name); }

    // Opens `name` as a new file.
    bool Create(File& file, const std::string& name) const {
        return file.Open(PathOf(name).c_str(), {.disposition = FileDisposition::kCreateNew});
    }
    bool Open(File& file, const std::string& name, FileOpenRequest request = {}) const {
        return file.Open(PathOf(name).c_str(), request);
    }

    static bool Write(File& file, const std::string& text) {
        u32 put = 0;
        return file.Write(text.data(), static_cast<u32>(text.size()), &put) && put == text.size();
    }
    // Reads up to `size` bytes; what a failed read gave counts too.
    static std::string Read(File& file, u32 size) {
        std::string text(size, '?');
        u32 got = 0;
        (void)file.Read(text.data(), size, &got);  // dropped: some files refuse it
        text.resize(got);
        return text;
    }
    static bool LastErrorIs(SystemErrorKind kind) { return platform::LastSystemErrorIs(kind); }

    TempFolder m_folder;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_PLATFORM_FILES_FIXTURE_H
