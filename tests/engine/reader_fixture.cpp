// Readers beside a writer; see the header.
#include "engine/reader_fixture.h"

#include "platform/system_error.h"

namespace k9erepl::test {

std::string ReaderSettings(const TestStorage& writer, std::string_view settings) {
    return "file=" + writer.Path() + ";read_only=yes;" + std::string(settings);
}

OnlyReading::OnlyReading() {
    Take<&CallTable::openFile, &OnlyReading::Open>();
    Take<&CallTable::writeFile, &OnlyReading::Write>();
    Take<&CallTable::setFileEnd, &OnlyReading::SetEnd>();
    Take<&CallTable::flushFile, &OnlyReading::ChangeFile>();
    Take<&CallTable::lockFile, &OnlyReading::ChangeFile>();
    Take<&CallTable::renameFile, &OnlyReading::ChangeNames>();
    Take<&CallTable::linkFile, &OnlyReading::ChangeNames>();
    Take<&CallTable::removeFile, &OnlyReading::ChangeName>();
    Take<&CallTable::makeDirectory, &OnlyReading::ChangeName>();
    Take<&CallTable::flushDirectory, &OnlyReading::ChangeName>();
    Take<&CallTable::createThread, &OnlyReading::CreateThread>();
}

bool OnlyReading::Refuse() {
    ++m_refused;
    platform::SetLastSystemError(platform::SystemErrorOf(platform::SystemErrorKind::kAccessDenied));
    return false;
}

platform::NativeFile OnlyReading::Open(const char* path, const platform::FileOpenRequest& request) {
    const bool reads = request.access == platform::FileAccess::kRead &&
                       request.disposition == platform::FileDisposition::kOpenExisting;
    return reads || Refuse() ? Below().openFile(path, request) : platform::kInvalidNativeFile;
}

}  // namespace k9erepl::test
