// What one run of a storage did to the disk, call by call, with what the storage held at each
// moment; and the judge of images that are made of it: the content is one that the storage had, a
// second opening shows the same, and the storage goes on from there.
#ifndef K9EREPL_TESTS_RELIABILITY_ORACLE_H
#define K9EREPL_TESTS_RELIABILITY_ORACLE_H

#include <functional>
#include <string>
#include <vector>

#include "model/content.h"
#include "model/settings.h"
#include "model/storage_client.h"
#include "reliability/disk_image.h"
#include "reliability/memory_disk.h"

namespace k9erepl::reliability {

// Places in History::states, both included.
struct StateRange {
    std::size_t low = 0;
    std::size_t high = 0;
};

// The end of an operation. States are counted by their places.
struct Mark {
    std::size_t changes = 0;       // made so far
    std::size_t begun = 0;         // the state that the operation leads to
    std::size_t acknowledged = 0;  // written, and the client was told so
    std::size_t flushed = 0;       // the same, and on the disk, as the settings promise
};

struct History {
    model::Settings settings;
    std::string moreSettings;  // win; end with ';' unless empty
    u32 recordSize = 0;        // bytes of data of every record; 0: they differ
    DiskImage base;            // everything in it is durable
    Changes changes;
    std::vector<model::Content> states;  // of the storage file; the first is that of the base
    std::vector<Mark> marks;             // the first at no change
    std::string problem;  // what the library answered otherwise than the model; empty: nothing

    std::string ConnString() const;
    // The disk behind the last change.
    DiskImage Last() const;
    // What a storage may hold when only the first `changes` changes were made, and perhaps a part
    // of the next one, because the process was killed.
    StateRange AfterKill(std::size_t changes, bool partOfNext = false) const;
    // The same after a power cut, of which only flushed changes are sure to survive.
    StateRange AfterPowerCut(std::size_t changes) const;

  private:
    std::size_t BegunAt(std::size_t changes) const;
};

// The storage file of every history.
std::string StoragePath();

// Everything that a storage shows of itself.
struct Seen {
    model::Records records;
    i64 nextRev = 0;
    i64 oldestRev = 0;
    u32 lifenum = 0;
    i64 mark = 0;

    bool operator==(const Seen&) const = default;
};
std::string Describe(const Seen& seen);

// What is wrong; empty when nothing is.
using Problem = std::string;
using Judge = std::function<Problem(const Seen& seen)>;

// What a loaded storage shows: of one range, everything but records, everything. *rises becomes
// false when revisions do not.
u32 ReadRange(const model::StorageClient& client, i64 from, i64 to, model::Records* records,
              bool* rises = nullptr);
void ReadMarks(const model::StorageClient& client, Seen* seen);
Problem Read(const model::StorageClient& client, Seen* seen);

// Opens, loads, reads, appends `records` records in one transaction, closes. *seen receives what
// was read; when the records are appended *after, unless null, receives it with them.
struct Appending {
    u32 records = 0;
    u32 dataSize = 0;
    u32 seed = 0;
};
Problem Visit(const std::string& connString, const Appending& appending, Seen* seen,
              Seen* after = nullptr);

// Whether `seen` is one of these states. Life number and revision mark may be those of another one
// of them: they reach the file by themselves.
Problem JudgeByStates(const History& history, StateRange range, const Seen& seen);
// The same as a function. REQUIRES: the history outlives it.
Judge ByStates(const History& history, StateRange range);

// The whole examination of an image: opened, judged, opened again with the same content, appended
// to, opened once more. `seed` chooses what is appended.
Problem Examine(MemoryDisk& disk, const DiskImage& image, const History& history, u64 seed,
                const Judge& judge);

// A session after a crash, which is killed in its opening or in what it appends first: `*judge`
// judges what it finds in `*image`. Then both are those of what it leaves.
Problem CrashAgain(MemoryDisk& disk, const History& history, u32 firstStamp, u32 recordsMin,
                   model::Random& random, DiskImage* image, Judge* judge);

}  // namespace k9erepl::reliability

#endif  // K9EREPL_TESTS_RELIABILITY_ORACLE_H
