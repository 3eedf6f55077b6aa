// The system's own files with a gate in front, as MemoryDisk has one: a test is asked before each
// call and makes it fail, fall short or end the process. The families of processes use it.
#ifndef K9EREPL_TESTS_RELIABILITY_GATED_FILES_H
#define K9EREPL_TESTS_RELIABILITY_GATED_FILES_H

#include <algorithm>
#include <map>
#include <mutex>
#include <string>

#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

// While it lives, the calls of the table for which a crash or a failure means something are its
// own. They wait for one another at the gate, not behind it.
class GatedFiles : test::CallLayer<GatedFiles> {
  public:
    explicit GatedFiles(Gate gate) : m_gate(std::move(gate)) {
        using test::CallTable;
        Take<&CallTable::openFile, &GatedFiles::Open>();
        Take<&CallTable::closeFile, &GatedFiles::Close>();
        Take<&CallTable::readFile, &GatedFiles::Read>();
        Take<&CallTable::writeFile, &GatedFiles::Write>();
        Take<&CallTable::setFileEnd, &GatedFiles::SetEnd>();
        Take<&CallTable::flushFile, &GatedFiles::Flush>();
        Take<&CallTable::lockFile, &GatedFiles::Lock>();
        Take<&CallTable::renameFile, &GatedFiles::Rename>();
        Take<&CallTable::linkFile, &GatedFiles::Link>();
        Take<&CallTable::removeFile, &GatedFiles::Remove>();
        Take<&CallTable::flushDirectory, &GatedFiles::FlushDirectory>();
    }

  private:
    friend CallLayer;
    using File = platform::NativeFile;
    using Call = test::SystemCall;

    File Open(const char* path, const platform::FileOpenRequest& request) {
        if (!Pass(Call::kOpen, path)) {
            return platform::kInvalidNativeFile;
        }
        const File file = Below().openFile(path, request);
        const std::lock_guard lock(m_mutex);
        m_names[file] = path;
        return file;
    }
    bool Close(File file) {
        const bool passes = Pass(Call::kClose, NameOf(file));
        return Below().closeFile(file) && passes;  // gone whatever is answered, as on Linux
    }
    i64 Read(File file, void* buffer, u32 size) {
        return Pass(Call::kRead, NameOf(file), &size) ? Below().readFile(file, buffer, size) : -1;
    }
    i64 Write(File file, const void* data, u32 size) {
        return Pass(Call::kWrite, NameOf(file), &size) ? Below().writeFile(file, data, size) : -1;
    }
    bool SetEnd(File file, i64 size) {
        return Pass(Call::kSetEnd, NameOf(file)) && Below().setFileEnd(file, size);
    }
    bool Flush(File file) { return Pass(Call::kFlush, NameOf(file)) && Below().flushFile(file); }
    bool Lock(File file) { return Pass(Call::kLockFile, NameOf(file)) && Below().lockFile(file); }
    bool Rename(const char* from, const char* to) {
        return Pass(Call::kRename, from) && Below().renameFile(from, to);
    }
    bool Link(const char* existing, const char* name) {
        return Pass(Call::kLink, existing) && Below().linkFile(existing, name);
    }
    bool Remove(const char* path) { return Pass(Call::kRemove, path) && Below().removeFile(path); }
    bool FlushDirectory(const char* path) {
        return Pass(Call::kFlushDirectory, path) && Below().flushDirectory(path);
    }

    std::string NameOf(File file) {
        const std::lock_guard lock(m_mutex);
        return m_names[file];
    }
    bool Pass(Call call, const std::string& name, u32* size = nullptr) {
        const std::lock_guard lock(m_mutex);
        const Permit permit = m_gate({call, name, 0, size != nullptr ? *size : 0});
        if (size != nullptr) {
            *size = std::min(*size, permit.sizeMax);
        }
        if (permit.error) {
            platform::SetLastSystemError(platform::SystemErrorOf(*permit.error));
        }
        return !permit.error;
    }

    std::mutex m_mutex;  // guards what follows, and the gate
    const Gate m_gate;
    std::map<File, std::string> m_names;  // by which open files were opened
};

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_GATED_FILES_H
