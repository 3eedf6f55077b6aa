// A second handle on the file of a storage, opened with read_only=yes, as the tests of readers
// beside a writer need it.
#ifndef K9EREPL_TESTS_ENGINE_READER_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_READER_FIXTURE_H

#include <string>
#include <string_view>

#include "engine/storage_fixture.h"
#include "platform/system_calls.h"

namespace k9erepl::test {

// "file=<the storage's file>;read_only=yes;" and the settings: for a TestStorage that begins with
// Start::kNothing.
std::string ReaderSettings(const TestStorage& writer, std::string_view settings = "");

// While it lives, files open for reading only, and whatever would change a file, a name or a folder
// is refused and counted. It must begin after what may write and end before it.
class OnlyReading {
  public:
    OnlyReading();
    ~OnlyReading();
    OnlyReading(const OnlyReading&) = delete;
    OnlyReading& operator=(const OnlyReading&) = delete;

    static u32 Refused();

  private:
    const platform::SystemCalls m_saved;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_READER_FIXTURE_H
