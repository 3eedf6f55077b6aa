// A storage file that reaches beyond 4 GiB, with holes for the data of its records. Used by the
// tests of large files.
#ifndef K9EREPL_TESTS_PORTABILITY_LARGE_FILE_FIXTURE_H
#define K9EREPL_TESTS_PORTABILITY_LARGE_FILE_FIXTURE_H

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/file.h"
#include "portability/portable_client.h"
#include "solid/file_format.h"
#include "support/temp_folder.h"

namespace k9erepl::test {

inline constexpr i64 kTwoGiB = i64{1} << 31;
inline constexpr i64 kFourGiB = i64{1} << 32;
// Of the largest record that a storage file takes.
inline constexpr u32 kLargeDataSize = 10 * 1024 * 1024 - kRecordHeadSize;
// A record and the commit block behind it.
inline constexpr i64 kLargeItemSize = i64{kRecordHeadSize} + kLargeDataSize + kCommitBlockSize;
inline constexpr i64 kLastLargeRev = 420;

constexpr i64 OffsetOfLarge(i64 rev) {
    return kFirstItemOffset + (rev - 1) * kLargeItemSize;
}
// The record of which a byte lies at `offset`.
constexpr i64 LargeRevAt(i64 offset) {
    return (offset - kFirstItemOffset) / kLargeItemSize + 1;
}
inline constexpr i64 kRevAtTwoGiB = LargeRevAt(kTwoGiB);
inline constexpr i64 kRevAtFourGiB = LargeRevAt(kFourGiB);
static_assert(OffsetOfLarge(kLastLargeRev) > kFourGiB + 5 * kLargeItemSize);

// Records 1 to kLastLargeRev, one a transaction. Data is zeros but for the first and the last eight
// bytes, which are the record's revision.
class LargeStorage : public testing::Test {
  protected:
    // Skips the test where such a file cannot be made.
    void SetUp() override;

    // Puts an index file that names every record beside the storage file.
    void WriteIndex();
    // "file=...;" and settings under which one block, of one record, stays in memory; `more` wins.
    std::string ConnString(const std::string& more = "") const;
    std::string Path() const { return m_folder.File("large.edb"); }
    i64 FileSize() const;

    // Revisions of the records in the range. Adds a failure where a record has other bytes than it
    // should.
    static std::vector<i64> ReadRevs(const portable::Client& client, i64 fromRev, i64 toRev);

  private:
    void WriteStorage();
    void WriteItem(i64 rev);
    void WriteAt(i64 offset, const void* data, u32 size);

    const TempFolder m_folder;
    platform::File m_file;
};

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_PORTABILITY_LARGE_FILE_FIXTURE_H
