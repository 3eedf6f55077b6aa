// What the tests of clearing and truncation add to the vocabulary: a storage that knows what it
// should hold, in every kind of cache and flush mode.
#ifndef K9EREPL_TESTS_ENGINE_CLEAR_FIXTURE_H
#define K9EREPL_TESTS_ENGINE_CLEAR_FIXTURE_H

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "engine/flush_fixture.h"
#include "engine/load_fixture.h"
#include "engine/storage_fixture.h"

namespace k9erepl::test {

inline constexpr u32 kLogical = static_cast<u32>(ClearMode::kLogical);
inline constexpr u32 kSqueeze = static_cast<u32>(ClearMode::kSqueeze);
inline constexpr u32 kSqueezeBackup = static_cast<u32>(ClearMode::kSqueezeBackup);
inline constexpr u32 kMark = static_cast<u32>(ClearMode::kMark);

// A way to keep records: how many blocks stay in memory, and when they reach the file.
struct Keeping {
    const char* name;
    std::string settings;
    bool hasFile = true;
};
std::ostream& operator<<(std::ostream& out, const Keeping& keeping);
// Its name as that of a test.
std::string NameOfKeeping(const ::testing::TestParamInfo<Keeping>& info);
// Everything in memory and in the file; nearly everything only in the file; much of it, or all of
// it, only in memory; no file at all.
const std::vector<Keeping>& AllKeepings();
std::vector<Keeping> KeepingsWithFile();
// Everything is flushed; the second one keeps one block in memory.
const Keeping& KeepInMemory();
const Keeping& KeepOnDisk();

// Blocks of 138 bytes, which take two of its records. Words that return nothing expect success.
class ClearableStorage : public TestStorage {
  public:
    explicit ClearableStorage(const Keeping& keeping, std::string_view more = "");

    // `count` transactions of one record each.
    void Put(u32 count = 1);
    // One record with this revision.
    void PutAt(i64 rev);
    // Uses one revision up without a record; the first way leaves an empty block behind.
    void UseUpLeavingABlock();
    void UseUp();

    void ClearTo(i64 rev, u32 mode);

    // What is served, the next and the oldest revision, in the state Open.
    void ExpectContent();
    // The same, also after more records, and after reopening with the index and without it.
    void ExpectContentForLife();
    void ReopenWithoutIndex();

    const Model& Content() const { return m_model; }
    static std::string TextOf(i64 rev);

  private:
    void Refuse(u32 dataSize);

    const bool m_hasFile;
    Model m_model;
    i64 m_nextRev = 1;
    i64 m_oldestRev = 0;
};

// The clear revision of each commit block of a storage file, in file order.
Revs ClearRevs(const TestStorage& storage);

// The path of the backup and of the temporary file of a squeeze.
std::string BackupPath(const TestStorage& storage);
std::string TemporaryPath(const TestStorage& storage);

}  // namespace k9erepl::test

#endif  // K9EREPL_TESTS_ENGINE_CLEAR_FIXTURE_H
