// Small storages that every build writes alike and every other build opens: a client whose records
// have a pattern, the contents that it writes and checks, and sums of their files. Used by the
// program portable_storage and by portability_tests.
#ifndef K9EREPL_TESTS_PORTABILITY_PORTABLE_H
#define K9EREPL_TESTS_PORTABILITY_PORTABLE_H

#include <k9erepl/storage_interfaces.h>

#include <optional>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/int_types.h"

namespace k9erepl::portable {

// A call of the library failed, or something is not what it should be.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Throws Failure unless `code` is RC_OK.
void Require(u32 code, const char* what);

// All there is to know of a record; its bytes follow from it.
struct PlannedRecord {
    i64 rev = 0;
    u32 dataSize = 0;

    bool operator==(const PlannedRecord&) const = default;
};
using PlannedRecords = std::vector<PlannedRecord>;

// What the commit blocks of the storage file say in the end.
struct LastCommit {
    i64 clearRev = 0;
    i64 commitRev = 0;
};

// Records have a pattern that their revision gives, so that whoever reads them knows every byte.
// Every call throws Failure unless the library answers RC_OK.
class Client {
  public:
    // Opens and loads the storage that the connection string describes.
    explicit Client(const std::string& connString);
    ~Client() { K9eReplStorageClose(m_handle); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void* Handle() const { return m_handle; }

    void Begin();
    void Commit();
    void Rollback();
    // Appends records of the pattern under the next revisions, or one under `rev`.
    void Insert(u32 dataSize, int count = 1);
    void InsertAs(i64 rev, u32 dataSize);
    void Clear(i64 rev, u32 mode);
    void SetLifenum(u32 lifenum);

    i64 NextRev() const;
    u32 Lifenum() const;
    i64 RevisionMark() const;
    // Every byte of the records is checked against the pattern.
    PlannedRecords Records(i64 fromRev, i64 toRev) const;
    LastCommit ScanForLastCommit() const;

  private:
    void* m_handle = nullptr;
};

// What a storage says of itself beside its records.
struct Marks {
    i64 clearRev = 0;
    u32 lifenum = 0;
    i64 mark = 0;
};

struct Content {
    std::string fileName;
    std::string settings;  // of the connection string, without the file
    // Fills the new storage; null for a file that another content leaves beside its own.
    void (*write)(Client& client);

    PlannedRecords records;
    i64 nextRev;
    std::optional<u32> indexEntries;  // none: there is no index file
    Marks marks;
};

// For the names of tests.
inline void PrintTo(const Content& content, std::ostream* out) {
    *out << content.fileName;
}

// In the order in which they are to be written.
const std::vector<Content>& Contents();

// The storage and index files of all contents: their names in the folder.
std::vector<std::string> FileNames();

// Writes every content into `folder`, which must exist and hold none of the files.
// Throws Failure.
void WriteAll(const std::string& folder);

// Looks at the content's storage in `folder`, at copies of it only: with its index, without,
// and after appending to it. Throws Failure with what is wrong.
void CheckWithIndex(const Content& content, const std::string& folder);
void CheckWithoutIndex(const Content& content, const std::string& folder);
void CheckAppending(const Content& content, const std::string& folder);

std::vector<u8> ReadFile(const std::string& path);

// The bytes of a storage file with each stamp of a commit block, the only bytes in which two builds
// that do the same may differ, replaced by a number: 1 for the first that the file has, 2 for the
// second, and so on, so that a broken chain stays one. Files of other kinds stay as they are.
std::vector<u8> WithoutStamps(std::span<const u8> bytes);

// 16 hexadecimal digits over WithoutStamps, and the size: "0123456789abcdef 4711".
std::string Digest(std::span<const u8> bytes);

}  // namespace k9erepl::portable

#endif  // K9EREPL_TESTS_PORTABILITY_PORTABLE_H
