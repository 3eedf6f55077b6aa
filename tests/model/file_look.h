// Opens a copy of a storage file as a storage of its own and compares it with what it should hold.
// The runner does so in the middle of a run and with backups.
#ifndef K9EREPL_TESTS_MODEL_FILE_LOOK_H
#define K9EREPL_TESTS_MODEL_FILE_LOOK_H

#include <k9erepl/storage.h>

#include <functional>
#include <string>
#include <vector>

#include "model/content.h"
#include "model/verdict.h"

namespace k9erepl::model {

// Whether `got` is exactly this record; else a failure of `verdict`, as `what`.
bool ExpectRecord(const K9eReplRec& got, Records::const_iterator expected,
                  Records::const_iterator end, const std::string& what, Verdict& verdict);

struct FileLook {
    std::string path;       // of the file to look at, which stays as it is
    std::string indexPath;  // of its index; empty: look without one
    std::string workPath;   // where the copy is made and removed again
    u32 cacheBlocks = 0;    // 0: AllInMem
    std::string what;       // begins the name of a failure
    bool growing = false;   // another thread may be writing the file
};

void ExpectContent(const FileLook& look, const Content& content, Verdict& verdict);

// The contents that the file may have when a load finds this next revision.
using ContentsWith = std::function<std::vector<Content>(i64 nextRev)>;
// The same for a file that holds one of several contents. No record needs more than `largestNeed`.
void ExpectOneContent(const FileLook& look, u64 largestNeed, const ContentsWith& contents,
                      Verdict& verdict);

}  // namespace k9erepl::model

#endif  // K9EREPL_TESTS_MODEL_FILE_LOOK_H
