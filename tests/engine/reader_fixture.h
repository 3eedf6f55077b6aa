// A second handle on the file of a storage, opened with read_only=yes, as the tests of readers
// beside a writer need it.
#ifndef K9EREPL_TESTS_ENGINE_READER_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_READER_FIXTURE_H

#include <string>
#include <string_view>

#include "engine/storage_fixture.h"
#include "support/call_layer.h"

namespace k9erepl::test {

// "file=<the storage's file>;read_only=yes;" and the settings: for a TestStorage that begins with
// Start::kNothing.
std::string ReaderSettings(const TestStorage& writer, std::string_view settings = "");

// While it lives, files open for reading only, and whatever would change a file, a name or a folder
// is refused and counted. No other storage is open meanwhile.
class OnlyReading : CallLayer<OnlyReading> {
  public:
    OnlyReading();

    u32 Refused() const { return m_refused; }

  private:
    friend CallLayer<OnlyReading>;
    bool Refuse();
    platform::NativeFile Open(const char* path, const platform::FileOpenRequest& request);
    i64 Write(platform::NativeFile, const void*, u32) { return Refuse() ? 0 : -1; }
    bool SetEnd(platform::NativeFile, i64) { return Refuse(); }
    bool ChangeFile(platform::NativeFile) { return Refuse(); }
    bool ChangeNames(const char*, const char*) { return Refuse(); }
    bool ChangeName(const char*) { return Refuse(); }
    void* CreateThread(platform::ThreadBody, void*) { return Refuse() ? this : nullptr; }

    u32 m_refused = 0;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_READER_FIXTURE_H
