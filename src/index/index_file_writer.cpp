// The writes of the index file. The texts name the part that could not be written.
#include "index/index_file_writer.h"

#include <k9erepl/storage.h>

#include <cassert>
#include <cstddef>
#include <utility>

#include "index/index_file.h"
#include "platform/file_names.h"
#include "platform/system_error.h"
#include "support/log.h"

namespace k9erepl {

namespace {

constexpr platform::FileOpenRequest kCreateRequest = {
    .access = platform::FileAccess::kReadWrite,
    .disposition = platform::FileDisposition::kOpenAlways,
    .sharing = platform::FileSharing::kRead,
};

}  // namespace

IndexFileWriter::IndexFileWriter(std::string path) : m_path(std::move(path)) {}

ResultCode IndexFileWriter::Create(const IndexImage& image) {
    assert(image.IsWhole() && image.TailSize() == 0);
    if (!platform::MakeParentDirectories(m_path)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Couldn't create directory for '%s'; sysErr %r",
                       m_path.c_str(), platform::LastSystemError());
        return RC_SYSTEM_ERROR;
    }
    bool isStorage = false;
    if (!m_file.Open(m_path.c_str(), kCreateRequest) || !IsStorageFile(m_file, &isStorage)) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Couldn't open file '%s'; sysErr %r",
                       m_path.c_str(), platform::LastSystemError());
        m_file.Close();
        return RC_SYSTEM_ERROR;
    }
    if (isStorage) {
        m_file.Close();
        return RefuseStorageFile(m_path);
    }
    if (!m_file.SetEnd(0) || !WriteAt(0, image.Header(), sizeof(TIndexHeader))) {
        LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex,
                       "Couldn't write file header;file '%s'; sysErr %r", m_path.c_str(),
                       platform::LastSystemError());
        m_file.Close();
        return RC_SYSTEM_ERROR;
    }
    return RC_OK;
}

ResultCode IndexFileWriter::Write(const IndexImage& image) {
    return image.IsWhole() ? WriteWhole(image) : WriteTail(image);
}

ResultCode IndexFileWriter::WriteWhole(const IndexImage& image) {
    if (!m_file.SetEnd(image.WholeSize()) || !WriteAt(0, image.Whole(), image.WholeSize())) {
        return Fail("full");
    }
    LOG_INFO(kLogIndex, "File rewritten (%P bytes)", std::size_t{image.WholeSize()});
    return RC_OK;
}

ResultCode IndexFileWriter::WriteTail(const IndexImage& image) {
    if (!WriteAt(image.TailOffset(), image.Tail(), image.TailSize())) {
        return Fail("tail");
    }
    if (!WriteAt(0, image.Header(), sizeof(TIndexHeader))) {
        return Fail("header");
    }
    LOG_INFO(kLogIndex, "File updated (%P bytes)", std::size_t{image.TailSize()});
    return RC_OK;
}

ResultCode IndexFileWriter::FlushToDisk() {
    return m_file.FlushToDisk() ? ResultCode{RC_OK} : Fail("flush");
}

bool IndexFileWriter::WriteAt(i64 position, const u8* data, u32 size) {
    u32 put = 0;
    return m_file.Seek(position) && m_file.Write(data, size, &put);
}

ResultCode IndexFileWriter::Fail(const char* part) const {
    LOG_ERROR_CODE(RC_SYSTEM_ERROR, kLogIndex, "Couldn't write file '%s' (%s); sysErr %r",
                   m_path.c_str(), part, platform::LastSystemError());
    return RC_SYSTEM_ERROR;
}

}  // namespace k9erepl
