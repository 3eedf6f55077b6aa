// A client of the library whose records have a pattern that their revision gives, so that whoever
// reads them knows every byte. What goes wrong is an exception that says where. Used by the
// portable contents.
#ifndef K9EREPL_TESTS_PORTABILITY_PORTABLE_CLIENT_H
#define K9EREPL_TESTS_PORTABILITY_PORTABLE_CLIENT_H

#include <k9erepl/storage_interfaces.h>

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

    bool operator==(const LastCommit&) const = default;
};

// Every call throws Failure unless the library answers RC_OK.
class Client {
  public:
    // Opens and loads the storage that the connection string describes.
    explicit Client(const std::string& connString);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void* Handle() const { return m_handle; }

    void Begin();
    void Commit();
    void Rollback();
    // Appends a record of the pattern under the next revision, or under `rev`.
    void Insert(u32 dataSize);
    void InsertAs(i64 rev, u32 dataSize);
    void Clear(i64 rev, u32 mode);

    i64 NextRev() const;
    u32 Lifenum() const;
    i64 RevisionMark() const;
    // Every byte of the records is checked against the pattern.
    PlannedRecords Records(i64 fromRev, i64 toRev) const;
    LastCommit ScanForLastCommit() const;

  private:
    void* m_handle = nullptr;
};

// Throws unless `code` is RC_OK.
void Require(u32 code, const char* what);

}  // namespace k9erepl::portable

#endif  // K9EREPL_TESTS_PORTABILITY_PORTABLE_CLIENT_H
