// A file that remembers where its pointer stands; see the header.
#include "platform/tracked_file.h"

#include <cassert>
#include <utility>

namespace k9erepl::platform {

TrackedFile::TrackedFile(File&& file, i64 position)
    : m_file(std::move(file)), m_position(position) {
    assert(m_file.IsOpen());
    assert(position >= 0);
}

File TrackedFile::Release() {
    Forget();
    return std::move(m_file);
}

bool TrackedFile::MoveTo(i64 position) {
    assert(position != m_position);
    if (!m_file.Seek(position)) {
        return false;
    }
    m_position = position;
    return true;
}

bool TrackedFile::Read(void* buffer, u32 size, u32* got) {
    assert(m_position != kUnknownPosition);
    if (!m_file.Read(buffer, size, got)) {
        Forget();
        return false;
    }
    m_position += *got;
    return true;
}

}  // namespace k9erepl::platform
