// Plain system calls on a file; see the header.
#include "compare/posix/raw_file.h"

#include <fcntl.h>
#include <unistd.h>

#include "bench_storage.h"

namespace k9erepl::bench {

RawFile::RawFile(const std::string& path, Mode mode)
    : m_descriptor(
          ::open(path.c_str(),
                 mode == Mode::kRead ? O_RDONLY | O_CLOEXEC : O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC,
                 0666)) {
    Require(m_descriptor >= 0, "opening a file of the limit");
}

RawFile::~RawFile() {
    ::close(m_descriptor);
}

void RawFile::Write(const void* bytes, std::size_t size) {
    Require(::write(m_descriptor, bytes, size) == static_cast<ssize_t>(size),
            "writing a file of the limit");
}

std::size_t RawFile::Read(void* bytes, std::size_t size) {
    const ssize_t got = ::read(m_descriptor, bytes, size);
    Require(got >= 0, "reading a file of the limit");
    return static_cast<std::size_t>(got);
}

void RawFile::ReadAt(void* bytes, std::size_t size, u64 offset) {
    Require(::pread(m_descriptor, bytes, size, static_cast<off_t>(offset)) ==
                static_cast<ssize_t>(size),
            "reading a piece of the limit's file");
}

void RawFile::SeekTo(u64 offset) {
    Require(::lseek(m_descriptor, static_cast<off_t>(offset), SEEK_SET) >= 0,
            "moving in the limit's file");
}

void RawFile::GrowTo(u64 size) {
    Require(::ftruncate(m_descriptor, static_cast<off_t>(size)) == 0, "growing the limit's file");
}

void RawFile::SyncData() {
    Require(::fdatasync(m_descriptor) == 0, "flushing the limit's file to the disk");
}

}  // namespace k9erepl::bench
