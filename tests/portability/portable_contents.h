// A handful of small storages that every build writes alike, and what they hold. Files written by
// one build must open in each of the others. Used by the program portable_storage and by
// portability_tests.
#ifndef K9EREPL_TESTS_PORTABILITY_PORTABLE_CONTENTS_H
#define K9EREPL_TESTS_PORTABILITY_PORTABLE_CONTENTS_H

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "platform/int_types.h"
#include "portability/portable_client.h"

namespace k9erepl::portable {

struct Content {
    std::string fileName;
    std::string settings;  // of the connection string, without the file
    // Creates and fills the storage; null for a file that another content leaves beside its own.
    void (*write)(const std::string& connString) = nullptr;

    PlannedRecords records = {};
    i64 nextRev = 1;
    i64 clearRev = 0;
    u32 lifenum = 0;
    i64 mark = 0;
    std::optional<u32> indexEntries = {};  // none: there is no index file
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

}  // namespace k9erepl::portable

#endif  // K9EREPL_TESTS_PORTABILITY_PORTABLE_CONTENTS_H
