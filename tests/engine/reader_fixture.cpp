// Readers beside a writer; see the header.
#include "engine/reader_fixture.h"

#include <atomic>

#include "platform/system_error.h"

namespace k9erepl::test {

namespace {

std::atomic<u32> g_refused{0};

bool Refuse() {
    ++g_refused;
    platform::SetLastSystemError(platform::SystemErrorOf(platform::SystemErrorKind::kAccessDenied));
    return false;
}

platform::NativeFile OpenForReading(const char* path, const platform::FileOpenRequest& request) {
    const bool reads = request.access == platform::FileAccess::kRead &&
                       request.disposition == platform::FileDisposition::kOpenExisting;
    if (!reads) {
        Refuse();
        return platform::kInvalidNativeFile;
    }
    return platform::NativeSystemCalls().openFile(path, request);
}

}  // namespace

std::string ReaderSettings(const TestStorage& writer, std::string_view settings) {
    return "file=" + writer.Path() + ";read_only=yes;" + std::string(settings);
}

OnlyReading::OnlyReading() : m_saved(platform::TheSystemCalls()) {
    g_refused = 0;
    platform::SystemCalls& calls = platform::TheSystemCalls();
    calls.openFile = OpenForReading;
    calls.writeFile = [](platform::NativeFile, const void*, u32) -> i64 {
        Refuse();
        return -1;
    };
    calls.setFileEnd = [](platform::NativeFile, i64) { return Refuse(); };
    calls.flushFile = [](platform::NativeFile) { return Refuse(); };
    calls.renameFile = [](const char*, const char*) { return Refuse(); };
    calls.linkFile = [](const char*, const char*) { return Refuse(); };
    calls.removeFile = [](const char*) { return Refuse(); };
    calls.makeDirectory = [](const char*) { return Refuse(); };
    calls.flushDirectory = [](const char*) { return Refuse(); };
    calls.createThread = [](platform::ThreadBody, void*) -> void* {
        Refuse();
        return nullptr;
    };
}

OnlyReading::~OnlyReading() {
    platform::TheSystemCalls() = m_saved;
}

u32 OnlyReading::Refused() {
    return g_refused;
}

}  // namespace k9erepl::test
