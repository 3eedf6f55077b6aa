// What a disk holds at one moment, as a value: files, and the names that lead to them. Copies share
// the bytes until one of them changes a file. Crash images are made by applying a part of what a
// run did to the image that it began with.
#ifndef K9EREPL_TESTS_RELIABILITY_DISK_IMAGE_H
#define K9EREPL_TESTS_RELIABILITY_DISK_IMAGE_H

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::reliability {

// A file by itself; names come and go.
using FileNumber = u32;
using Names = std::map<std::string, FileNumber>;

// Bytes in pages that copies share until one of them writes, so that a file may be copied for
// little and be larger than the memory: what was never written is zero and costs nothing.
class FileBytes {
  public:
    i64 Size() const { return m_size; }
    // Behind it everything is zero.
    i64 StoredSize() const { return m_stored; }
    // Bytes got; fewer than asked at the end.
    u32 Read(i64 offset, void* buffer, u32 size) const;
    void Write(i64 offset, const void* data, u32 size);
    void SetEnd(i64 size);
    u64 Hash() const;
    // Everything, zeros included.
    std::string Whole() const;

  private:
    static constexpr i64 kPageSize = 4096;
    using Page = std::array<char, kPageSize>;

    Page& Changing(i64 begin);

    std::map<i64, std::shared_ptr<Page>> m_pages;  // by the offsets of their first bytes
    i64 m_stored = 0;                              // the end of what was written, or cut since
    i64 m_size = 0;
    mutable std::optional<u64> m_hash;
};

enum class ChangeKind : u8 {
    kCreate,
    kWrite,
    kSetEnd,
    kRename,
    kLink,
    kRemove,
    kFlush,           // changes nothing, and makes the file's changes durable
    kFlushDirectory,  // the same for names
};

// A call that changed what the disk holds, or made it durable.
struct Change {
    ChangeKind kind = ChangeKind::kWrite;
    FileNumber file = 0;  // the one that the call was about
    i64 at = 0;           // where a write begins; the size that an end was set to
    std::string bytes;    // written
    std::string name;     // before a renaming or removal; else the new one
    std::string to;       // after a renaming

    bool ChangesNames() const;
    bool ChangesBytes() const { return kind == ChangeKind::kWrite || kind == ChangeKind::kSetEnd; }
};
using Changes = std::vector<Change>;

// One line.
std::string Describe(const Change& change);

void ApplyToNames(const Change& change, Names& names);

class DiskImage {
  public:
    // A change of a file that the image does not know makes it.
    void Apply(const Change& change);
    // The same with only the first `size` bytes of a write.
    void ApplyCut(const Change& write, u32 size);

    // Null when there is no such name.
    const FileBytes* Find(const std::string& name) const;
    std::optional<FileNumber> NumberOf(const std::string& name) const;
    const FileBytes& At(FileNumber file) const { return *m_files.at(file); }
    // A file of its own under this name, in the place of what the name led to.
    void Put(const std::string& name, FileBytes bytes);
    void PutName(const std::string& name, FileNumber file) { m_names[name] = file; }
    bool Knows(FileNumber file) const { return m_files.contains(file); }
    void PutFile(FileNumber file, std::shared_ptr<FileBytes> bytes) { m_files[file] = bytes; }

    const Names& AllNames() const { return m_names; }
    FileNumber NextNumber() const { return m_files.empty() ? 1 : m_files.rbegin()->first + 1; }
    // Shared with copies of the image; to be looked at only.
    std::shared_ptr<FileBytes> Share(FileNumber file) const;
    // Of what the names lead to. Equal when all files have the same names and bytes.
    u64 Hash() const;
    // Of the files that have names; a file's zeros at the end count only if `holesCount`.
    i64 UsedBytes(bool holesCount) const;
    // Writes the files into a folder that exists, for a look with other means.
    void Save(const std::string& folder) const;

  private:
    FileBytes& Changing(FileNumber file);

    Names m_names;
    std::map<FileNumber, std::shared_ptr<FileBytes>> m_files;
};

// A mixture of two hashes.
u64 Mix(u64 a, u64 b);
u64 HashOf(const void* data, std::size_t size);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_DISK_IMAGE_H
